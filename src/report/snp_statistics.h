#pragma once
// The SNP tests of a run in the column layout of the association output of
// PLINK 2, so that Manhattan, QQ and fine-mapping tools read them unchanged.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace krel {

// Where a SNP sits and which allele its effect counts.
struct snp_annotation {
    std::string chrom, id;
    std::int64_t pos = 0;
    std::string a1;        // the allele counted by the genotype codes
    std::string omitted;   // the other one
};

// The annotation of the .bim of a PLINK fileset: the allele coded 2 is the
// second allele of the record, so it is the counted one (A1), the first the
// omitted one.
std::vector<snp_annotation> read_bim_annotation(const std::string& bim_file, std::int32_t nsnp);
// Text genotypes carry no map: the SNP number as identifier, the rest NA.
std::vector<snp_annotation> numbered_annotation(std::int32_t nsnp);

// One SNP of one trait. A SNP without information has every statistic NA
// (stored as not-a-number).
struct snp_test {
    double a1_freq = 0.0;  // NA as not-a-number
    bool informative = false;
    double beta = 0.0, se = 0.0, z = 0.0;
    // The two-sided p-value, 0 where it is below the range of a double.
    double p = 0.0;
    // -log10 p in full, exact also where p is below the range of a double.
    double log10_p = 0.0;
};

// -log10 of the two-sided normal p-value of |z|. The tail comes from the
// 16-byte complementary error function and, where even that underflows,
// from its asymptotic series.
double minus_log10_p(double b, double varhat);
// The p-value as text: p itself where a double holds it, otherwise mantissa
// and decimal exponent from -log10 p ("3.2e-412").
std::string p_text(double p, double log10_p);

// The statistics of one trait: b the SNP effects, varhat the variance of the
// estimates, varies whether the genotypes of the SNP vary, freq the counted
// allele's frequency (not-a-number if unknown). A SNP is informative when its
// genotypes vary and its estimate has a positive finite variance.
std::vector<snp_test> snp_tests(const std::vector<double>& b, const std::vector<double>& varhat,
                                const std::vector<bool>& varies, const std::vector<double>& freq);

// The fixed header of the file, tab-separated.
inline constexpr std::string_view sumstats_header =
    "#CHROM\tPOS\tID\tA1\tOMITTED\tA1_FREQ\tBETA\tSE\tZ_STAT\tP\tLOG10_P";

// One row a SNP in the order of the genotypes. Throws error_stop after a
// logged message when the file cannot be written.
void write_sumstats(const std::string& file, const std::vector<snp_annotation>& snps,
                    const std::vector<snp_test>& tests);

// The name of the file of trait t out of ntrait: "<stem>.<ext>" for a single
// trait, "<stem>_trait<t>.<ext>" otherwise.
std::string trait_file_name(std::string_view stem, std::string_view ext, std::int32_t t, std::int32_t ntrait);

}  // namespace krel
