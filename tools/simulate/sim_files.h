#pragma once
// The files of a data set, in the formats that krel reads.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "sim_genotypes.h"
#include "sim_pedigree.h"
#include "sim_reliability.h"
#include "sim_settings.h"

namespace krelsim {

// Buffered text output; every failure throws std::runtime_error naming the file.
class text_writer {
public:
    explicit text_writer(const std::filesystem::path& file);
    ~text_writer();
    text_writer(const text_writer&) = delete;
    text_writer& operator=(const text_writer&) = delete;

    template <typename... Args>
    void print(fmt::format_string<Args...> f, Args&&... args) {
        fmt::format_to(std::back_inserter(buffer_), f, std::forward<Args>(args)...);
        if (buffer_.size() >= flush_size) flush();
    }
    void put(char c) { buffer_.push_back(c); }
    void close();  // flushes and checks; the destructor closes quietly

private:
    void flush();
    static constexpr std::size_t flush_size = 1 << 20;
    std::filesystem::path file_;
    std::FILE* f_ = nullptr;
    fmt::memory_buffer buffer_;
};

// Counts per SNP of the second allele's homozygotes, heterozygotes and
// missing genotypes, as PLINK codes them.
struct allele_counts {
    std::vector<std::int64_t> hom2, het, missing;
    std::int64_t individuals = 0;
    // Frequency of the second allele among the genotypes that are not missing.
    double frequency(std::int64_t j) const;
};

// Receives the chunks of the gene drop: writes the .bed, counts alleles and,
// when asked, keeps the codes for the text files.
class plink_writer {
public:
    plink_writer(const std::filesystem::path& bed, std::int64_t nsnp, std::int64_t individuals, bool keep);
    void add(std::int64_t first, std::int64_t count, const std::uint8_t* codes);
    void close();
    const allele_counts& counts() const { return counts_; }
    const std::vector<std::uint8_t>& codes() const { return kept_; }
    std::int64_t nbytes() const { return nbytes_; }

private:
    std::filesystem::path file_;
    std::FILE* f_ = nullptr;
    std::int64_t nbytes_ = 0;
    std::int64_t next_ = 0;
    bool keep_ = false;
    std::vector<std::uint8_t> kept_;
    allele_counts counts_;
};

void write_pedigree(const std::filesystem::path& file, const sim_pedigree& ped);
void write_metafounders(const std::filesystem::path& file, const sim_pedigree& ped, const sim_settings& s);
void write_fam(const std::filesystem::path& file, const sim_pedigree& ped, const std::vector<std::int32_t>& genotyped);
void write_bim(const std::filesystem::path& file, const snp_map& map, const sim_settings& s);
void write_frequencies(const std::filesystem::path& file, const std::vector<double>& freq);
// Both text layouts; missing genotypes become the nearest allele count of
// 2p, or 0 in the centred form (spaced layout only).
void write_text_genotypes(const std::filesystem::path& spaced, const std::filesystem::path& nospace,
                          const sim_pedigree& ped, const std::vector<std::int32_t>& genotyped,
                          const plink_writer& plink, const std::vector<double>& freq, bool centred);

// Variance components: heritability, genetic, residual and SNP (co)variances.
void write_variances(const std::filesystem::path& dir, const sim_variances& v, const std::vector<double>& freq);
// Pedigree PEV in the five-column solution format and reliabilities in the
// wide format, for all levels of the real animals.
void write_pev_rel(const std::filesystem::path& pev, const std::filesystem::path& rel, const sim_pedigree& ped,
                   const sim_variances& v, const sim_reliabilities& r, const sim_settings& s);
// Estimated SNP effects, in the five-column and in the six-column format.
void write_snp_solutions(const std::filesystem::path& five, const std::filesystem::path& six, const snp_map& map,
                         const sim_variances& v, const std::vector<double>& freq, const sim_settings& s);

// Sum over SNPs of 2 p (1 - p).
double sum_2pq(const std::vector<double>& freq);

}  // namespace krelsim
