#pragma once
// The pictures of a run, drawn with Cairo into the working directory, each as
// a PNG for people and a PDF for reports. Points that fall on the same few
// pixels are drawn once, so that a million SNPs or animals make neither a
// slow plot nor a large file.
#include <cstdint>
#include <string>
#include <vector>

#include "report/snp_statistics.h"

namespace krel {

// Sizes in pixels of the PNG (and points of the PDF).
inline constexpr int manhattan_width = 1600, manhattan_height = 800;
inline constexpr int qq_width = 800, qq_height = 800;
inline constexpr int distribution_width = 1200, distribution_height = 800;
inline constexpr int scatter_width = 860, scatter_height = 800;

// -log10 p by chromosome and position; informative SNPs only. The line is
// the 5 % genome-wide threshold after Bonferroni correction.
void plot_manhattan(const std::string& stem, const std::vector<snp_annotation>& snps,
                    const std::vector<snp_test>& tests, const std::string& title);

// Observed against expected -log10 p, with the genomic inflation factor.
void plot_qq(const std::string& stem, const std::vector<snp_test>& tests, double lambda, const std::string& title);

// Median of z^2 over the informative SNPs divided by the median of a
// chi-square with one degree of freedom; not-a-number without SNPs.
double genomic_inflation(const std::vector<snp_test>& tests);

// The reliabilities of one trait: pedigree and genomic, for the genotyped
// and the other animals.
struct reliability_groups {
    std::vector<double> pedigree_genotyped, genomic_genotyped;
    std::vector<double> pedigree_other, genomic_other;
};

// Distribution of the four groups as shares of each group by class of 0.02.
void plot_reliability_distribution(const std::string& stem, const reliability_groups& groups,
                                   const std::string& title);
// Genomic against pedigree reliability of the genotyped animals, as counts
// per cell of a 100 by 100 grid.
void plot_reliability_scatter(const std::string& stem, const reliability_groups& groups, const std::string& title);

}  // namespace krel
