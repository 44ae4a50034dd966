#pragma once
// The reliability engine: one krel_type object per run, owned by the run
// driver. It holds the model data of its base, the genotypes, the SNP
// variances and the results of the steps.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "inputs/genotypes.h"
#include "inputs/model_data.h"
#include "util/dense_matrix.h"

namespace krel {

// Additional output (to standard output and files), set from --verbose.
inline bool lkrel_verbose = false;

// Options of init_krel; those from scale_snp_var on may be left at their defaults.
struct krel_init_options {
    std::string pedfile = "none", genfile = "none", freqfile = "none", rvcv = "none", gvcv = "none",
                svcv = "none", pevfile = "none", phenofile = "none", reffile = "none", relfile = "none";
    std::int32_t effect = 1;
    double beta = 0.05;
    bool use_inbreeding = true, save_pec = false, save_erc = false;
    bool scale_snp_var = false;
    std::string inbfile = "none", h2file = "none";
    std::int32_t method = 1;
    double edc_adjust_factor = 1.0, pev_adjust_factor = 1.0;
};

class krel_type : public krel_abstract {
public:
    std::string genfile = "none", freqfile = "none", svcv = "none", phenofile = "none", reffile = "none";
    double beta = 0.0, edc_adjust_factor = 1.0, pev_adjust_factor = 1.0;
    bool use_inbreeding = true, save_pec = false, save_erc = false, scale_snp_var = false;
    std::int32_t method = 1;
    bool is_plink = false;
    // Whether the exact inverse treats group parents as unknown parents
    // (otherwise each group is a founder animal there).
    bool groups_as_unknown = false;
    std::int32_t nsnp = 0;
    covariable_type geno;
    std::vector<double> freq;  // allele frequencies of text genotypes: freq[s - 1] for SNP s
    std::int32_t ngeno = 0;
    // Row of each level in the genotypes, 0 without genotypes.
    std::vector<std::int32_t> idmap;
    // SNP (co)variances by effect (svar[0] unused), each 80 by 80 whatever
    // the number of traits.
    std::vector<dmatrix> svar;
    // Animals related to genotyped ones, ascending, and their count.
    std::vector<std::int32_t> related;
    std::int32_t nrelated = 0;
    // Results: PEV of SNP effects (trait, SNP); final_rel, the reliabilities
    // written at the end (level, trait): the genotyped animals' from Step 3,
    // the others' from the road taken after Steps 4 to 6; ERC of the
    // genotyped animals and final weights (trait, level).
    dmatrix pev_snp, final_rel, rel_ped, erc_g, erc_ss;

    void init_krel(const krel_init_options& o);
    void read_genotype_files();
    // SNP variance of text genotypes read without --svcv: the genetic
    // variance over the sum of 2pq of the frequency file, for allele counts
    // only, which are then centred with those frequencies; otherwise the run
    // stops naming --svcv.
    void derive_snp_variance();
    // Step 2: ERC of the genotyped animals (levels in genotype-file order).
    void compute_krel_step2(const std::vector<std::int32_t>& list);
    // The model data into a reverse object, for the selected levels.
    void copy_krel_to_reverse(const std::vector<std::int32_t>& list, class reverse_type& reverse) const;
    // Levels of the genotyped animals, in the order of their rows.
    std::vector<std::int32_t> genotyped_levels() const;
    // Steps 2 and 3: genomic reliabilities of the genotyped animals and PEV
    // of the SNP effects. gwas_mode stops after the SNP part.
    void compute_krel_geno(bool only_geno, std::optional<std::int32_t> blocks, std::optional<std::int32_t> overlap,
                           bool gwas_mode);
    // Test statistics of the SNP effects of a solution file (five columns,
    // or six with tarnelo_format).
    void pvalue(const std::string& solfile, std::optional<std::int32_t> snp_effect = std::nullopt,
                bool tarnelo_format = false);
    // Steps 4 to 6: final weights erc_ss of all animals.
    void compute_krel_notgeno();
    // Reliabilities of the animals without genotypes by the Tier and Meyer
    // approximation of the inverse left-hand side.
    void reliabilities_by_tier_meyer();
    // Reliabilities of the animals without genotypes from the diagonal of
    // the exact inverse of a single-trait animal model, trait by trait.
    void reliabilities_by_exact_inverse();
    // Allele frequency of SNP j (1-based) as the model uses it.
    double snp_frequency(std::int32_t j) const;
    // SNPs (1-based, ascending) whose frequency is 0 or 1; none when the
    // frequencies are unknown.
    std::vector<std::int32_t> monomorphic_snps() const;

private:
    struct snp_model_inputs;
    // The genotypes Step 3 builds the SNP model from: those of all genotyped
    // animals, or of the reference animals of --ref copied into kept.
    // levels gets their pedigree levels in row order.
    const covariable_type& reference_genotypes(std::vector<std::int32_t>& levels, covariable_type& kept) const;
    // Steps 3.a and 3.b of one trait on all SNPs at once: PEV of the SNP
    // effects into pev_snp and, unless gwas_mode, the genomic PEV of every
    // genotyped animal into pevg.
    void snp_model_all_snps(const snp_model_inputs& in, const covariable_type& reference, bool gwas_mode,
                            std::vector<double>& pevg);
    // The same in blocks of SNPs (PLINK genotypes only), each solved with
    // its neighbours on either side; pevg sums the blocks' cores.
    void snp_model_in_blocks(const snp_model_inputs& in, const covariable_type& reference, std::int32_t block_size,
                             std::int32_t overlap, bool gwas_mode, std::vector<double>& pevg);
    // Step 3.c: genomic reliabilities of trait t from the genomic PEV, with
    // the EDC and PEV adjustments, blended with the pedigree ones.
    void blend_genomic_reliabilities(std::int32_t t, const std::vector<std::int32_t>& geno_to_ped,
                                     std::vector<double>& pevg);
    // Reliabilities of trait t for the levels without genotypes from their
    // PEV d[level]: 1 - PEV / (g (1 + F)). Genotyped levels keep theirs.
    void set_notgeno_reliabilities(std::int32_t t, const std::vector<double>& d);
    // The pedigree of the exact inverse: the pedigree itself, or with
    // groups_as_unknown its group parents replaced by unknown parents.
    pedigree_type exact_inverse_pedigree() const;
    // Log of the count of negative reliabilities of trait t after the exact inverse.
    void log_negative_reliabilities(std::int32_t t) const;
};

// Both final reliability files.
void write_reliability_files(const krel_type& krel);

// The boxed title of a step of the engine in the log.
void step_header(const std::string& title);

}  // namespace krel
