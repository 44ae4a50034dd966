#pragma once
// Genotypes and covariables: one matrix held either as 8-byte reals (text
// files) or as packed 2-bit PLINK codes, and the readers of the text layouts.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "util/dense_matrix.h"
#include "util/large_buffer.h"

namespace krel {

// A column-major matrix of 8-bit integers, 1-based like dmatrix, with an
// explicit allocation state: an allocated matrix may still have no elements.
// Large matrices sit on huge pages (see large_buffer): the packed genotypes
// are written and read across their columns.
class int8_matrix {
public:
    using index_type = std::int64_t;

    int8_matrix() noexcept = default;
    int8_matrix(const int8_matrix& other);
    int8_matrix& operator=(const int8_matrix& other);
    int8_matrix(int8_matrix&& other) noexcept;
    int8_matrix& operator=(int8_matrix&& other) noexcept;
    ~int8_matrix() = default;

    // Allocates rows x cols elements, all zero.
    void allocate(index_type rows, index_type cols);
    void deallocate() noexcept;
    bool allocated() const noexcept { return allocated_; }

    index_type rows() const noexcept { return rows_; }
    index_type cols() const noexcept { return cols_; }
    index_type ld() const noexcept { return rows_; }
    std::size_t size() const noexcept { return static_cast<std::size_t>(rows_ * cols_); }

    std::int8_t* data() noexcept { return data_; }
    const std::int8_t* data() const noexcept { return data_; }
    // Start of (1-based) column j.
    std::int8_t* column(index_type j) noexcept { return data_ + (j - 1) * rows_; }
    const std::int8_t* column(index_type j) const noexcept { return data_ + (j - 1) * rows_; }

    std::int8_t& operator()(index_type i, index_type j) noexcept {
        return data_[(j - 1) * rows_ + (i - 1)];
    }
    const std::int8_t& operator()(index_type i, index_type j) const noexcept {
        return data_[(j - 1) * rows_ + (i - 1)];
    }

private:
    large_buffer buffer_;
    std::int8_t* data_ = nullptr;
    bool allocated_ = false;
    index_type rows_ = 0;
    index_type cols_ = 0;
};

// Decoded value of each 2-bit code, indexed by the code.
inline constexpr std::array<double, 4> genotype_code_values = {0.0, 3.0, 1.0, 2.0};

// A genotype or covariable matrix.
//
// Text file: nsnp x ngeno reals in val, column r for the animal of line r;
// ncol == ngeno; ival unallocated.
// PLINK file: the packed codes in ival, nsnp x ncol with ncol the bytes per
// SNP (four animals a byte, the first in the lowest two bits); val is
// nsnp x 1 and holds the allele frequency of each SNP.
//
// idmap[level] is the row (text: the column of val) of the animal of that
// pedigree level, 0 if it has no genotypes. idmap has one element per level
// up to the highest identity plus element 0, which stays 0, so that an
// unknown parent maps to "not genotyped".
class covariable_type {
public:
    std::int32_t nsnp = 0;
    std::int32_t ncol = 0;
    std::int32_t ngeno = 0;
    std::vector<std::int32_t> idmap;
    int8_matrix ival;
    dmatrix val;

    // Whether the genotypes are held in packed form.
    bool is_packed() const noexcept { return ival.allocated(); }

    // The decoded genotype (0, 1, 2, or 3 for missing) of individual ind at
    // SNP snp, both 1-based.
    double getvalue_ival(std::int64_t snp, std::int64_t ind) const noexcept {
        const std::uint8_t byte = static_cast<std::uint8_t>(ival(snp, (ind + 3) / 4));
        const int shift = static_cast<int>(2 * ((ind - 1) % 4));
        return genotype_code_values[(byte >> shift) & 3u];
    }
    double getvalue_val(std::int64_t i, std::int64_t j) const noexcept { return val(i, j); }
    // The centred genotype g - 2p; a missing genotype is exactly 0.
    double getvalue_summary(std::int64_t snp, std::int64_t ind) const noexcept {
        const double g = getvalue_ival(snp, ind);
        return g >= 3.0 ? 0.0 : g - 2.0 * val(snp, 1);
    }
    // For code that serves both forms: centred genotype or real value.
    double getval(std::int64_t i, std::int64_t j) const noexcept {
        return ival.allocated() ? getvalue_summary(i, j) : val(i, j);
    }

    // Size of the arrays held, in mebibytes.
    double memory() const noexcept;
    // nsnp = n1, ncol = n2, val n1 x n2 of zeros.
    void allocreal(std::int32_t n1, std::int32_t n2);
    // nsnp = n1, ncol = n2, ival n1 x n2 of zeros.
    void allocint(std::int32_t n1, std::int32_t n2);
    // Back to the state of a new object.
    void finalize() noexcept;
};

// Reads a genotype file: PLINK when the last extension of file is ".bed",
// otherwise text in one of two layouts. freqfile applies to PLINK only
// ("none", "compute" or a file). maxid is the size of idmap (the highest
// pedigree level); for PLINK a value below 1 lets the .fam decide.
//
// Every record of a text file is an animal: a record that cannot be read, a
// value outside its domain or a level given twice stops the run with the
// file, the line and the value. Text genotypes have no missing code. The
// layout without spaces holds allele counts, so its digits are 0, 1 or 2.
// A spaced file whose first record holds whole numbers only holds allele
// counts as well; otherwise its values (centred genotypes, covariables) are
// taken as they stand and must be finite.
void readgenotype(const std::string& file, const std::string& freqfile, std::int32_t maxid,
                  std::int32_t& nsnp, std::int32_t& ngeno, covariable_type& cov, bool& isplink);

// Text genotypes; the layout follows from the number of fields on the first line.
void read_centeredgenocov_ascii(const std::string& file, std::int32_t maxid, std::int32_t& nsnp,
                                std::int32_t& ngeno, covariable_type& cov);
// One animal a line: identity, then one real per SNP, separated by blanks.
// nsnp below 1 on entry: taken from the first line; otherwise checked.
void read_genocov_spacedelimiter(const std::string& file, std::int32_t maxid, std::int32_t& nsnp,
                                 std::int32_t& ngeno, covariable_type& cov);
// One animal a line: identity, blanks, then one digit per SNP.
void read_genocov_nodelimiter(const std::string& file, std::int32_t maxid, std::int32_t& nsnp,
                              std::int32_t& ngeno, covariable_type& cov);
// PLINK fileset through plinkreadbed.
void readcovariable_plinkbed_bin(const std::string& file, const std::string& freqfile,
                                 std::int32_t maxid, std::int32_t& nsnp, std::int32_t& ngeno,
                                 covariable_type& cov);

// Longest line of the layout without spaces, and the part of the first line
// of a text genotype file that is looked at to tell the layouts apart.
inline constexpr std::size_t nodelimiter_line_length = 100000;
inline constexpr std::size_t first_line_length = 1000000;
// SNPs per repeated group in the format of long genotype lines.
inline constexpr std::int32_t format_group_snps = 30000;

// Widths of a line of the layout without spaces: counts[0] leading blanks,
// counts[1] identity, counts[2] blanks between identity and genotypes. When
// the line has not exactly two fields, writes the complaint to standard
// output and stops.
void count_spaces(std::string_view line, std::array<std::int32_t, 3>& counts);
// The edit descriptor that reads such a line: "(iWW,BBx,NNNNNi1)", or for
// more than 30000 SNPs "(iWW,BBx,GGGG(30000i1),NNNNNi1)".
std::string derive_format_statement(std::int32_t nsnp, std::string_view line);

// Reads a line by a format from derive_format_statement: the identity, then
// the digits into genotypes. False when the line does not hold them all.
bool read_genotype_line(std::string_view format, std::string_view line, std::int32_t& identity,
                        std::vector<std::int32_t>& genotypes);

}  // namespace krel
