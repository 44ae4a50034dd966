#pragma once
// Values of the command line that the run drivers read.
#include <cstdint>
#include <string>

namespace krel {

// The common options.
struct run_options {
    std::int32_t blocks = -9;
    std::string genofile = "none";
    std::string freqfile = "none";
    double beta = 0.05;
    std::string pedfile = "none";
    std::string pevfile = "none";
    std::string relfile = "none";
    std::string rvcvfile = "none";
    std::string gvcvfile = "none";
    std::string svcvfile = "none";
    std::string h2file = "none";
    std::int32_t effect = -1;
    bool use_inbreeding = true;
    std::string inbfile = "none";
    bool save_pec = false;
    bool scale_snp_var = false;
    std::string gwas_file = "none";
    std::int32_t gwas_effect = -1;
    std::string mgwas_file = "none";
    std::int32_t mgwas_effect = -1;
    bool plots = false;
};

// The options of the group "krel".
struct krel_group_options {
    std::string phenofile = "none";
    std::string reffile = "none";
    double edc_adjust_factor = 1.0;
    double pev_adjust_factor = 1.0;
    bool only_geno = false;
    bool save_erc = false;
    bool ungeno_tm = false;
    bool groups_as_unknown = false;
    std::int32_t method = 1;  // ZRZ method: 1 "mkl", 2 "low_mem"
};

}  // namespace krel
