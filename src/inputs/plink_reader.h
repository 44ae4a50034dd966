#pragma once
// PLINK binary filesets (.bed, .bim, .fam) into the packed genotype array:
// reading, allele frequencies, subsets of individuals and expansion to
// centred reals.
//
// Packed layout: ival is nsnp x nbytes, column-major, nbytes = ceil(nind/4):
// all SNPs of one byte column are adjacent, the transpose of the file. Within
// a byte the first individual sits in the lowest two bits. Codes decode as
// 00 -> 0.0, 01 -> 3.0 (missing), 10 -> 1.0, 11 -> 2.0.
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "inputs/genotypes.h"
#include "util/dense_matrix.h"

namespace krel {

// The decoded value of each 2-bit code.
inline constexpr std::array<double, 4> pgeno = genotype_code_values;

// The four decoded genotypes of every byte, lowest bits first, indexed by
// the byte as an unsigned value (the row of signed byte b is b & 0xFF).
using decode_table = std::array<std::array<double, 4>, 256>;
const decode_table& pdecode_i1_wp();
const decode_table& pdecode_i1_real8();
// The row of a byte, indexed as the signed byte it is stored as.
inline const std::array<double, 4>& pdecode_i1_real8(std::int8_t byte) {
    return pdecode_i1_real8()[static_cast<std::uint8_t>(byte)];
}

// Reads the fileset whose .bed is named by file. maxid, if given and
// positive, is the size of idmap (highest level); otherwise the highest
// identity of the .fam is. freqfile: "none" (all frequencies 0), "compute"
// (from the genotypes) or the name of a file of frequencies. On return ival
// is nsnp x nbytes, idmap has maxid + 1 elements (element 0 unused), val is
// nsnp x 1 with the allele frequencies, and maxfam is the highest identity
// of the .fam.
void plinkreadbed(const std::string& file, const std::string& freqfile,
                  std::optional<std::int32_t> maxid, std::int32_t& nsnp, std::int32_t& nbytes,
                  std::int32_t& nind, std::int32_t& maxfam, int8_matrix& ival,
                  std::vector<std::int32_t>& idmap, dmatrix& val);

// All three members of the fileset prefix exist, or the run stops.
void check_plinkfiles(const std::string& prefix);

// Frequency of the allele coded 2 (the second allele of the .bim) of every
// SNP, counted on the packed bytes; missing genotypes are left out, so a SNP
// with no genotypes gives not-a-number.
void allelefreq_allsnp(std::span<double> freq, const int8_matrix& ival, std::int64_t nind);
void allelefreq_allsnp(double* freq, const std::int8_t* ival, std::int64_t ld, std::int64_t nsnp,
                       std::int64_t nind);

// The packed form of the individuals of the levels in keep, in that order.
// The old arrays are left as they are.
void keepindividuals(const int8_matrix& ival, std::span<const std::int32_t> idmap,
                     std::span<const std::int32_t> keep, int8_matrix& ivalnew,
                     std::vector<std::int32_t>& idmapnew);

// The centred genotypes g - 2p of the first nind individuals as an
// nsnp x nind real matrix, missing genotypes 0, computed as (g - p) - p.
void decompress_bed_snpmajor_real8(const int8_matrix& ival, std::span<const double> freq,
                                   std::int64_t nind, dmatrix& z);
// The same into z (leading dimension ldz) from a packed array that starts at
// any byte column: ival points to that column, ld is the leading dimension of
// the packed array, nind individuals are expanded.
void decompress_bed_snpmajor_real8(const std::int8_t* ival, std::int64_t ld, std::int64_t nsnp,
                                   const double* freq, std::int64_t nind, double* z,
                                   std::int64_t ldz);

}  // namespace krel
