#pragma once
// What the run driver asks of the report once the result files are written:
// the summary statistics of the SNP tests, the reliabilities by group, and
// with --plots the pictures of both. Reads result files and plain values; no
// numerical work of the evaluation happens here.
#include <cstdint>
#include <string>
#include <vector>

#include "report/run_summary.h"
#include "util/dense_matrix.h"

namespace krel {

struct snp_report_inputs {
    std::string genofile;  // the .bed of a PLINK fileset, or a text file
    bool is_plink = false;
    std::string solfile;   // the solution file the tests were made from
    std::int32_t effect = 0;
    bool tarnelo_format = false;
    std::int32_t ntrait = 0, nsnp = 0;
    // Per SNP, 0-based: whether the genotypes vary, and the counted allele's
    // frequency (not-a-number where unknown).
    std::vector<bool> varies;
    std::vector<double> freq;
    bool plots = false;
};

struct snp_report {
    std::vector<std::string> files;
    std::int64_t without_information = 0;
    std::vector<double> lambda;  // by trait
};

// Reads the variances of the estimates back from qd_varhatsnpeffects_approx.dat
// and the effects from the solution file, and writes krel_sumstats.tsv (one
// file a trait when there are several) and, with plots, the Manhattan and QQ
// plots.
snp_report report_snp_tests(const snp_report_inputs& in);

struct reliability_inputs {
    std::int32_t ntrait = 0;
    const dmatrix* pedigree = nullptr;  // (level, trait)
    const dmatrix* genomic = nullptr;   // (level, trait)
    std::int64_t animals = 0;           // levels 1 to animals are animals, those above groups
    std::vector<bool> genotyped;        // by level, element 0 unused
    bool non_genotyped_done = false;    // whether the other animals have results
    double floor = 1.0e-8;              // lower bound of the genotyped animals' values
    bool plots = false;
};

// The summary of the reliabilities by trait and group and, with plots, their
// distribution and the genomic against the pedigree value of the genotyped.
std::vector<trait_reliabilities> report_reliabilities(const reliability_inputs& in);

}  // namespace krel
