#include "engine/reliability_engine.h"

#include <quadmath.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <fstream>
#include <limits>
#include <span>

#include "engine/erc_reversal.h"
#include "engine/genomic_pev.h"
#include "engine/reverse_reliabilities.h"
#include "engine/snp_model_matrix.h"
#include "engine/tier_meyer.h"
#include "inputs/frequency_file.h"
#include "inputs/level_list.h"
#include "inputs/plink_reader.h"
#include "inputs/solution_files.h"
#include "inputs/variance_files.h"
#include "mme/model_description.h"
#include "mme/random_contributions.h"
#include "sparse/sparse_matrix.h"
#include "util/dense_linear_algebra.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"
#include "util/run_timer.h"

namespace krel {

namespace {

constexpr const char* module_name = "modkrel";

std::string stat_text(double v) { return realtochar(v, "(f0.3)"); }

// Smallest and largest value; for an empty list the largest real and its negative.
std::pair<double, double> extremes(const std::vector<double>& v) {
    double lo = std::numeric_limits<double>::max(), hi = -std::numeric_limits<double>::max();
    for (double x : v) {
        lo = std::min(lo, x);
        hi = std::max(hi, x);
    }
    return {lo, hi};
}


}  // namespace

void step_header(const std::string& title) {
    const std::string rule(title.size() + 4, '*');
    global_logger().log_message(" \n" + rule + "\n* " + title + " *\n" + rule);
}

void krel_type::init_krel(const krel_init_options& o) {
    auto& log = global_logger();
    wtime clock;
    pedfile = o.pedfile;
    genfile = o.genfile;
    freqfile = o.freqfile;
    rvcv = o.rvcv;
    gvcv = o.gvcv;
    svcv = o.svcv;
    pevfile = o.pevfile;
    phenofile = o.phenofile;
    reffile = o.reffile;
    relfile = o.relfile;
    effect = o.effect;
    beta = o.beta;
    use_inbreeding = o.use_inbreeding;
    save_pec = o.save_pec;
    save_erc = o.save_erc;
    scale_snp_var = o.scale_snp_var;
    inbfile = o.inbfile;
    h2file = o.h2file;
    method = o.method;
    edc_adjust_factor = o.edc_adjust_factor;
    pev_adjust_factor = o.pev_adjust_factor;

    read_model_files();
    read_genotype_files();
    log.log_information("Plink genotype file                           : " + std::string(is_plink ? "T" : "F"));
    if (svcv != "none") {
        svar.assign(static_cast<std::size_t>(effect) + 1, dmatrix());
        svar[effect].resize(80, 80);
        readgf(svcv, effect, ntrait, svar[effect]);
    } else if (!is_plink) {
        derive_snp_variance();
    }
    std::vector<std::int32_t> genotyped;
    for (std::size_t level = 1; level < idmap.size(); ++level)
        if (idmap[level] != 0) genotyped.push_back(static_cast<std::int32_t>(level));
    ngeno = static_cast<std::int32_t>(genotyped.size());
    std::vector<std::int32_t> descendants;
    ped.getdescendants(genotyped, descendants);
    ped.getancestors(descendants, related);
    nrelated = static_cast<std::int32_t>(related.size());
    log.log_information("Number of animals related to genotyped animals: " + inttochar(nrelated));
    if (lkrel_verbose) {
        std::ofstream out("qd_list_related_genotyped.dat");
        for (const std::int32_t id : related) out << list_directed(id) << '\n';
    }
    log.log_message("Wall clock time (s) for reading the data: " + realtochar(clock.elapsed(), "(f0.3)"));
}

void krel_type::read_genotype_files() {
    readgenotype(genfile, freqfile, ped.nlength(), nsnp, ngeno, geno, is_plink);
    idmap = geno.idmap;
    if (is_plink || freqfile == "ignore" || freqfile == "none" || freqfile == "compute") return;
    std::int32_t n = 0;
    readfrequency(freqfile, n, freq);
    if (n != nsnp) {
        global_logger().log_error("Not the same number of SNPs in the genotype and allele frequency files! (" +
                                      inttochar(nsnp) + " vs " + inttochar(n) + ")",
                                  module_name, procedure_at("readdata_asci_krel"));
        throw error_stop();
    }
}

namespace {

// Whether every text genotype is an allele count 0, 1 or 2.
bool allele_counts(const covariable_type& genotypes) {
    const double* v = genotypes.val.data();
    for (std::size_t k = 0; k < genotypes.val.size(); ++k)
        if (v[k] != 0.0 && v[k] != 1.0 && v[k] != 2.0) return false;
    return true;
}

}  // namespace

void krel_type::derive_snp_variance() {
    auto& log = global_logger();
    // Text genotypes give the SNP model its variance through --svcv. For
    // allele counts with known frequencies it follows from the genetic
    // variance as for PLINK data: sigma2_snp = sigma2_a / sum of 2pq.
    const bool have_frequencies = freqfile != "none" && freqfile != "compute" && freqfile != "ignore";
    double sum2pq = 0.0;
    // The sum runs over the whole array, whatever its first index.
    for (const double p : freq) sum2pq += 2.0 * p * (1.0 - p);
    std::string why;
    if (!have_frequencies)
        why = "no allele frequency file (--freq) is given";
    else if (!allele_counts(geno))
        why = "the genotypes of " + genfile + " are not all allele counts 0, 1 or 2";
    else if (!(sum2pq > 0.0) || !std::isfinite(sum2pq))
        why = "the sum of 2pq of " + freqfile + " is " + realtochar(sum2pq, "(g0.6)");
    if (!why.empty()) {
        log.log_error("Text genotypes need the (co)variances of SNP effects (--svcv): " + why +
                          ", so they cannot be derived from the genetic variance",
                      module_name, procedure_at("init_krel"));
        throw error_stop();
    }
    // That variance belongs to centred genotypes, as PLINK genotypes are
    // used; counts as they are would put 2p into every animal's genomic PEV.
    for (std::int64_t r = 1; r <= geno.val.cols(); ++r)
        for (std::int32_t snp = 1; snp <= nsnp; ++snp) geno.val(snp, r) -= 2.0 * snp_frequency(snp);
    log.log_information("Text genotypes of " + genfile + " are allele counts: centred as g - 2p with the frequencies of " +
                        freqfile + ", as PLINK genotypes are");
    svar.assign(static_cast<std::size_t>(effect) + 1, dmatrix());
    svar[effect].resize(80, 80);
    for (std::int32_t t = 1; t <= ntrait; ++t) {
        svar[effect](t, t) = gvar[effect](t, t) / sum2pq;
        log.log_information("SNP variance (trait " + inttochar(t) + ") derived without --svcv: genetic variance " +
                            realtochar(gvar[effect](t, t), "(g0.6)") + " over the sum of 2pq of " + freqfile + " (" +
                            realtochar(sum2pq, "(f0.3)") + ") = " + realtochar(svar[effect](t, t), "(g0.6)"));
    }
}

std::vector<std::int32_t> krel_type::genotyped_levels() const {
    std::vector<std::int32_t> rows(static_cast<std::size_t>(ngeno), 0);
    for (std::size_t level = 1; level < idmap.size(); ++level) {
        const std::int32_t r = idmap[level];
        if (r >= 1 && r <= ngeno) rows[r - 1] = static_cast<std::int32_t>(level);
    }
    return rows;
}

void krel_type::copy_krel_to_reverse(const std::vector<std::int32_t>& list, reverse_type& reverse) const {
    reverse.ntrait = ntrait;
    reverse.effect = effect;
    reverse.ped = ped;
    reverse.order = order;
    reverse.gvar = gvar;
    reverse.rmat = rmat;
    reverse.pev = pev;
    reverse.rel = rel;
    reverse.selected = list;
    reverse.write_files = false;
}

void krel_type::compute_krel_step2(const std::vector<std::int32_t>& list) {
    step_header("Step 2: reverse reliabilities for the genotyped animals");
    {
        reverse_type reverse;
        copy_krel_to_reverse(list, reverse);
        reverse.compute_reverse("qd_erc_g.dat");
        reverse.clean_reverse();
        erc_g.resize(reverse.erc.rows(), reverse.erc.cols());
        for (const std::int32_t id : list)
            for (dmatrix::index_type t = 1; t <= erc_g.rows(); ++t) erc_g(t, id) = reverse.erc(t, id);
    }
    for (std::int32_t t = 1; t <= ntrait; ++t) {
        std::vector<double> v;
        v.reserve(list.size());
        for (const std::int32_t id : list) v.push_back(erc_g(t, id));
        const auto [lo, hi] = extremes(v);
        global_logger().log_message("Tr " + inttochar(t) + " - ERC (N, Min, Mean (SD), Max): " +
                                    inttochar(static_cast<std::int32_t>(v.size())) + ", " + stat_text(lo) + ", " +
                                    stat_text(mean(v)) + " (" + stat_text(std::sqrt(var(v))) + ")" + ", " +
                                    stat_text(hi));
    }
}

void write_reliability_files(const krel_type& krel) {
    const auto n = static_cast<std::int32_t>(krel.final_rel.rows());
    std::vector<std::int32_t> list(n);
    for (std::int32_t i = 0; i < n; ++i) list[i] = i + 1;
    dmatrix transposed(krel.final_rel.cols(), n);
    for (std::int32_t i = 1; i <= n; ++i)
        for (dmatrix::index_type t = 1; t <= transposed.rows(); ++t) transposed(t, i) = krel.final_rel(i, t);
    write_pevercrel("qd_sskreliabilities.dat", krel.effect, list, transposed, "f0.5");
    write_pevercrel("qd_sskreliabilities_tarnelo.dat", krel.effect, list, transposed, "f0.5");
}

namespace {

// A holder of the SNPs first..last (1-based) of a packed holder.
covariable_type snp_block(const covariable_type& full, std::int32_t first, std::int32_t last) {
    covariable_type block;
    const std::int32_t n = last - first + 1;
    block.allocint(n, full.ncol);
    for (std::int64_t b = 1; b <= full.ncol; ++b)
        std::copy(&full.ival(first, b), &full.ival(first, b) + n, &block.ival(1, b));
    block.val.resize(n, 1);
    for (std::int32_t s = 0; s < n; ++s) block.val(s + 1, 1) = full.val(first + s, 1);
    block.ngeno = full.ngeno;
    block.idmap = full.idmap;
    return block;
}

// Sum over the SNPs of 2p(1 - p).
double sum_2pq(std::span<const double> freq) {
    double sum = 0.0;
    for (const double p : freq) sum += p * (1.0 - p);
    return 2.0 * sum;
}

void log_genomic_pev_start(std::int32_t t, std::int32_t effect, const std::string& label) {
    auto& log = global_logger();
    log.log_message("Step 3.b: computation of genomic PEV for genotyped animals" + label);
    log.log_information("Computation of PEV (PEC) for genotyped animals(trait " + inttochar(t) + " - effect " +
                        inttochar(effect) + ")");
}

void log_genomic_pev_time(const wtime& clock) {
    global_logger().log_message("Wall clock time (s) for computing PEV from (ZRZ+Bi): " +
                                realtochar(clock.elapsed(), "(f0.3)"));
}

}  // namespace

// What the SNP model of one trait is built from.
struct krel_type::snp_model_inputs {
    std::int32_t trait;
    std::string label;                 // " (trait t)" in the log
    std::vector<double> record_weights;  // ERC of the reference animals
    double residual_precision;
    std::optional<double> polygenic_fraction;
    double sum2pq;
};

const covariable_type& krel_type::reference_genotypes(std::vector<std::int32_t>& levels,
                                                      covariable_type& kept) const {
    levels = genotyped_levels();
    if (reffile == "none") return geno;
    auto& log = global_logger();
    if (!is_plink) {
        log.log_error("Reference individuals can only be used with Plink genotype files", module_name,
                      procedure_at("compute_krel_geno"));
        throw error_stop();
    }
    levels = read_level_list(reffile, ped.nlength(), module_name, "compute_krel_geno");
    if (levels.empty()) {
        log.log_error("The reference file " + reffile + " lists no animals", module_name,
                      procedure_at("compute_krel_geno"));
        throw error_stop();
    }
    for (const std::int32_t id : levels)
        if (static_cast<std::size_t>(id) >= geno.idmap.size() || geno.idmap[id] == 0) {
            log.log_error("The reference file " + reffile + " names level " + inttochar(id) + ", which has no genotypes",
                          module_name, procedure_at("compute_krel_geno"));
            throw error_stop();
        }
    std::vector<std::int32_t> idmapnew;
    keepindividuals(geno.ival, geno.idmap, levels, kept.ival, idmapnew);
    kept.idmap = std::move(idmapnew);
    kept.nsnp = geno.nsnp;
    kept.ncol = static_cast<std::int32_t>(kept.ival.cols());
    kept.ngeno = static_cast<std::int32_t>(levels.size());
    kept.val = geno.val;
    return kept;
}

void krel_type::snp_model_all_snps(const snp_model_inputs& in, const covariable_type& reference, bool gwas_mode,
                                   std::vector<double>& pevg) {
    auto& log = global_logger();
    const std::int32_t t = in.trait;
    log.log_message(std::string(is_plink ? "Step 3.a: inverse SNPBLUP (Plink)" : "Step 3.a: inverse SNPBLUP (real)") +
                    in.label);
    const double sigmab = is_plink ? in.sum2pq / gvar[effect](t, t) : 1.0 / svar[effect](t, t);
    dmatrix zrz;
    std::vector<double> pecdiag;
    compute_krel_step3a(method, is_plink, reference, in.record_weights, in.residual_precision, sigmab,
                        in.polygenic_fraction, save_pec, "trait" + inttochar(t), zrz, pecdiag);
    for (std::int32_t s = 1; s <= nsnp; ++s) pev_snp(t, s) = pecdiag[s];
    if (gwas_mode) return;
    log_genomic_pev_start(t, effect, in.label);
    const wtime clock;
    if (is_plink)
        get_pev_gen_exp_plink(zrz, geno, pevg);
    else
        get_pev_gen_exp_real(zrz, geno, pevg);
    log_genomic_pev_time(clock);
}

void krel_type::snp_model_in_blocks(const snp_model_inputs& in, const covariable_type& reference,
                                    std::int32_t block_size, std::int32_t overlap, bool gwas_mode,
                                    std::vector<double>& pevg) {
    auto& log = global_logger();
    const std::int32_t t = in.trait;
    if (!is_plink) {
        log.log_error("Blocks: no support for (genotype) matrices in real format", module_name, procedure_at("pvalue"));
        throw error_stop();
    }
    log.log_information("Size of overlap between blocks: " + inttochar(overlap));
    const std::int32_t nblocks = (nsnp + block_size - 1) / block_size;
    dmatrix zrz;
    std::vector<double> pecdiag;
    for (std::int32_t b = 1, start = 1; b <= nblocks; ++b, start += block_size) {
        // Each block is solved with `overlap` SNPs on either side of its
        // core, so that the core's SNP PEV sees its neighbours.
        const std::int32_t core_end = std::min(b * block_size, nsnp);
        const std::int32_t ext_start = start > overlap + 1 ? start - overlap : start;
        const std::int32_t ext_end = std::min(core_end + overlap, nsnp);
        const covariable_type block = snp_block(reference, ext_start, ext_end);
        log.log_message("Step 3.a: inverse SNPBLUP (Plink) (" + inttochar(ext_start) + "-" + inttochar(ext_end) +
                        ")" + in.label);
        compute_krel_step3a(method, true, block, in.record_weights, in.residual_precision,
                            in.sum2pq / gvar[effect](t, t), in.polygenic_fraction, save_pec, "trait" + inttochar(t),
                            zrz, pecdiag);
        log.log_information("Copy SNP PEV (" + inttochar(start) + "-" + inttochar(core_end) + ")");
        for (std::int32_t s = start; s <= core_end; ++s) pev_snp(t, s) = pecdiag[s - ext_start + 1];
        if (gwas_mode) continue;
        // Only the core SNPs enter the genetic PEV, so none counts twice.
        const covariable_type core = snp_block(geno, start, core_end);
        const std::int32_t off = start - ext_start;
        dmatrix c(core_end - start + 1, core_end - start + 1);
        for (std::int32_t j = 1; j <= c.cols(); ++j)
            for (std::int32_t i = 1; i <= c.rows(); ++i) c(i, j) = zrz(i + off, j + off);
        log_genomic_pev_start(t, effect, in.label);
        const wtime clock;
        std::vector<double> part;
        get_pev_gen_exp_plink(c, core, part);
        for (std::size_t i = 0; i < part.size(); ++i) pevg[i] += part[i];
        log_genomic_pev_time(clock);
    }
}

void krel_type::blend_genomic_reliabilities(std::int32_t t, const std::vector<std::int32_t>& geno_to_ped,
                                            std::vector<double>& pevg) {
    auto& log = global_logger();
    const double s = gvar[effect](t, t);
    const auto ng = static_cast<std::int32_t>(geno_to_ped.size());
    std::vector<double> relg(ng), d(ng);
    for (std::int32_t i = 0; i < ng; ++i) {
        d[i] = use_inbreeding ? s * (1.0 + ped.inb[geno_to_ped[i]]) : s;
        relg[i] = 1.0 - pevg[i] / d[i];
    }
    if (edc_adjust_factor != 1.0) {
        log.log_message("Genomic EDC adjustement following Liu et al. 2024.\nEDC factor adjustement :" +
                        realtochar(edc_adjust_factor));
        const double h = s / (s + 1.0 / rmat[1](t, t));
        const double lambda = (1.0 - h) / h;
        for (std::int32_t i = 0; i < ng; ++i) {
            const double edc = edc_adjust_factor * (lambda * relg[i] / (1.0 - relg[i]));
            relg[i] = edc / (lambda + edc);
            pevg[i] = d[i] * (1.0 - relg[i]);
        }
    }
    if (pev_adjust_factor != 1.0) {
        log.log_message("Genomic PEV adjustement\nPEV factor adjustement :" + realtochar(pev_adjust_factor));
        for (std::int32_t i = 0; i < ng; ++i) {
            pevg[i] = d[i] * pev_adjust_factor * (1.0 - relg[i]);
            relg[i] = 1.0 - pevg[i] / d[i];
        }
    }
    log.log_message("Step 3.c: blending of genomic and RPG REL for genotyped animals (trait " + inttochar(t) + ")");
    for (std::int32_t i = 0; i < ng; ++i) {
        const std::int32_t id = geno_to_ped[i];
        const double w = beta * (1.0 + ped.inb[id]);
        final_rel(id, t) = (w * rel(id, t) + (1.0 - beta) * relg[i]) / (w + 1.0 - beta);
    }
    if (lkrel_verbose) {
        std::ofstream out("qd_pevrelstarrel_geno_" + inttochar(t) + ".dat");
        for (std::int32_t i = 0; i < ng; ++i)
            out << (i + 1) << ' ' << geno_to_ped[i] << ' ' << realtochar(pevg[i]) << ' ' << realtochar(relg[i]) << ' '
                << realtochar(final_rel(geno_to_ped[i], t)) << '\n';
    }
}

void krel_type::compute_krel_geno(bool only_geno, std::optional<std::int32_t> blocks,
                                  std::optional<std::int32_t> overlap, bool gwas_mode) {
    auto& log = global_logger();
    const std::vector<std::int32_t> geno_to_ped = genotyped_levels();
    std::vector<std::int32_t> reference_levels;
    covariable_type kept;
    const covariable_type& reference = reference_genotypes(reference_levels, kept);
    if (reference.nsnp != nsnp) {
        log.log_error("The numbers of SNPs to compute PEV for SNP effects and genetic effects are not the same!",
                      module_name, procedure_at("compute_krel_geno"));
        throw error_stop();
    }
    // PLINK data keep their frequencies beside the genotypes; text genotypes
    // hold genotypes only, and take theirs from the frequency file.
    std::vector<double> text_freq;
    if (!is_plink)
        for (std::int32_t j = 1; j <= nsnp; ++j) text_freq.push_back(snp_frequency(j));
    const double sum2pq = is_plink ? sum_2pq({reference.val.data(), static_cast<std::size_t>(reference.nsnp)})
                                   : sum_2pq(text_freq);
    log.log_information("Sum of 2pq: " + realtochar(sum2pq, "(f0.3)"));

    compute_krel_step2(geno_to_ped);
    step_header("Step 3: reliabilities of GEBV for genotyped animals");
    pev_snp.resize(ntrait, nsnp);
    final_rel.resize(ped.nlength(), ntrait);
    const std::int32_t block_size = blocks && *blocks > 0 && *blocks < nsnp ? *blocks : nsnp;

    for (std::int32_t t = 1; t <= ntrait; ++t) {
        snp_model_inputs in{t,
                            " (trait " + inttochar(t) + ")",
                            std::vector<double>(reference_levels.size()),
                            1.0 / rmat[1](t, t),
                            scale_snp_var ? std::optional<double>(beta) : std::nullopt,
                            sum2pq};
        for (std::size_t k = 0; k < reference_levels.size(); ++k) in.record_weights[k] = erc_g(t, reference_levels[k]);
        std::vector<double> pevg(geno.ngeno, 0.0);
        if (block_size < nsnp)
            snp_model_in_blocks(in, reference, block_size, overlap && *overlap >= 1 ? *overlap : 0, gwas_mode, pevg);
        else
            snp_model_all_snps(in, reference, gwas_mode, pevg);
        if (gwas_mode) continue;
        blend_genomic_reliabilities(t, geno_to_ped, pevg);
        log.log_message("");
    }
    std::vector<std::int32_t> snps(nsnp);
    for (std::int32_t s = 0; s < nsnp; ++s) snps[s] = s + 1;
    write_pevercrel("qd_pevsnpeffects.dat", effect, snps, pev_snp);
    if (gwas_mode) return;
    for (dmatrix::index_type t = 1; t <= final_rel.cols(); ++t)
        for (dmatrix::index_type i = 1; i <= final_rel.rows(); ++i)
            final_rel(i, t) = std::min(std::max(final_rel(i, t), 1.0e-8), 1.0);
    if (only_geno) {
        dmatrix gathered(ntrait, ped.nlength());
        for (const std::int32_t id : geno_to_ped)
            for (std::int32_t t = 1; t <= ntrait; ++t) gathered(t, id) = final_rel(id, t);
        write_pevercrel("qd_sskreliabilities_geno.dat", effect, geno_to_ped, gathered);
    }
}

void krel_type::pvalue(const std::string& solfile, std::optional<std::int32_t> snp_effect, bool tarnelo_format) {
    auto& log = global_logger();
    const std::int32_t eff = snp_effect.value_or(effect);
    if (solfile == "none") {
        log.log_error("No SNP files were provided for GWAS", module_name, procedure_at("pvalue"));
        throw error_stop();
    }
    dmatrix b(nsnp, ntrait);
    if (tarnelo_format)
        readsol_tarnelo_reg(solfile, eff, b);
    else
        readsol(solfile, eff, b);
    dmatrix varhat(ntrait, nsnp), z(ntrait, nsnp), p(ntrait, nsnp), lr(ntrait, nsnp);
    const bool snp_route = svcv != "none" && static_cast<std::size_t>(effect) < svar.size();
    if (snp_route) {
        for (std::int32_t t = 1; t <= ntrait; ++t)
            for (std::int32_t j = 1; j <= nsnp; ++j) varhat(t, j) = svar[effect](t, t) - pev_snp(t, j);
    } else if (static_cast<std::size_t>(effect) < gvar.size()) {
        double d = 0.0;
        for (std::int32_t j = 1; j <= nsnp; ++j) {
            const double q = snp_frequency(j);
            d += (1.0 - q) * q;
        }
        d *= 2.0;
        for (std::int32_t t = 1; t <= ntrait; ++t)
            for (std::int32_t j = 1; j <= nsnp; ++j) varhat(t, j) = gvar[effect](t, t) / d - pev_snp(t, j);
    } else {
        log.log_error("(Co)variance components for SNP effects should be provided", module_name, procedure_at("pvalue"));
        throw error_stop();
    }
    // A monomorphic SNP has no information in the SNP model: its PEV is its
    // prior variance, and the variance of its estimate is 0. The difference
    // of the two is taken as exactly that, so that both routes agree whatever
    // the rounding of a variance read from a file.
    const std::vector<std::int32_t> fixed = monomorphic_snps();
    for (const std::int32_t j : fixed)
        for (std::int32_t t = 1; t <= ntrait; ++t) varhat(t, j) = 0.0;
    if (!fixed.empty())
        log.log_warning(inttochar(static_cast<std::int32_t>(fixed.size())) +
                        " monomorphic SNPs: the variance of their estimated effect is 0, so their z-scores (not "
                        "finite), p-values (0) and likelihood ratios (largest real) carry no information");
    for (std::int32_t t = 1; t <= ntrait; ++t)
        for (std::int32_t j = 1; j <= nsnp; ++j) {
            const double bj = b(j, t), v = varhat(t, j);
            const __float128 qb = bj, qv = v;
            const __float128 u = fabsq(qb) / sqrtq(qv);
            const __float128 c = cdf_norm(u);
            p(t, j) = v != 0.0 ? static_cast<double>(2 * (1 - c)) : 0.0;
            z(t, j) = static_cast<double>(qb / sqrtq(qv));
            lr(t, j) = v != 0.0 ? ((0.5 * bj) * bj) / v : DBL_MAX;
        }
    std::vector<std::int32_t> snps(nsnp);
    for (std::int32_t s = 0; s < nsnp; ++s) snps[s] = s + 1;
    write_pevercrel("qd_zscores_approx.dat", eff, snps, z);
    write_pevercrel("qd_pvalues_approx.dat", eff, snps, p);
    write_pevercrel("qd_lr_approx.dat", eff, snps, lr);
    write_pevercrel("qd_varhatsnpeffects_approx.dat", eff, snps, varhat);
}

std::vector<std::int32_t> krel_type::monomorphic_snps() const {
    std::vector<std::int32_t> snps;
    // Text genotypes without a frequency file have no frequencies to judge by.
    if (!is_plink && freq.empty()) return snps;
    for (std::int32_t j = 1; j <= nsnp; ++j) {
        const double p = snp_frequency(j);
        if (p == 0.0 || p == 1.0) snps.push_back(j);
    }
    return snps;
}

double krel_type::snp_frequency(std::int32_t j) const {
    if (is_plink) return geno.val(j, 1);
    return j >= 1 && static_cast<std::size_t>(j) <= freq.size() ? freq[static_cast<std::size_t>(j) - 1] : 0.0;
}

void krel_type::compute_krel_notgeno() {
    auto& log = global_logger();
    const std::int32_t n = ped.nlength();
    const std::vector<std::int32_t> gl = genotyped_levels();
    step_header("Step 4: weights for the non-genotyped animals");
    std::vector<std::int32_t> listed;
    if (phenofile == "rela") {
        listed = related;
    } else if (phenofile == "none") {
        listed.resize(static_cast<std::size_t>(pev.rows()));
        for (std::size_t i = 0; i < listed.size(); ++i) listed[i] = static_cast<std::int32_t>(i + 1);
    } else {
        listed = read_level_list(phenofile, n, module_name, "compute_krel_notgeno");
    }
    log.log_information("Number of individuals listed: " + inttochar(static_cast<std::int32_t>(listed.size())));
    dmatrix erc1;
    {
        reverse_type rev1;
        copy_krel_to_reverse(listed, rev1);
        rev1.compute_reverse("qd_erc_f.dat");
        rev1.clean_reverse();
        erc1 = std::move(rev1.erc);
    }

    step_header("Step 5: genomic weights for the genotyped animals");
    dmatrix erc2;
    {
        reverse_type rev2;
        copy_krel_to_reverse(gl, rev2);
        rev2.rel.assign(0.0);
        for (std::int32_t t = 1; t <= ntrait; ++t) {
            log.log_message("Trait " + inttochar(t));
            for (const std::int32_t g : gl) rev2.rel(g, t) = final_rel(g, t);
            const double gv = gvar[effect](t, t);
            for (dmatrix::index_type i = 1; i <= rev2.pev.rows(); ++i) {
                if (use_inbreeding) {
                    const double v = gv * ped.inb[i] + gv;
                    rev2.pev(i, t) = v - rev2.rel(i, t) * v;
                } else {
                    rev2.pev(i, t) = gv - gv * rev2.rel(i, t);
                }
            }
        }
        rev2.compute_reverse("qd_erc_g_g.dat");
        rev2.clean_reverse();
        erc2 = std::move(rev2.erc);
    }
    dmatrix ercadd(erc1.rows(), erc1.cols()), ercss(erc1.rows(), erc1.cols());
    {
        std::ofstream stats("qd_stats_erc_add.dat");
        for (std::int32_t t = 1; t <= ntrait; ++t) {
            std::vector<double> v;
            for (const std::int32_t g : gl) {
                const double d = erc2(t, g) - erc_g(t, g);
                ercadd(t, g) = d > 0.0 ? d : 1e-08;
                v.push_back(ercadd(t, g));
                ercss(t, g) = erc1(t, g) + ercadd(t, g);
            }
            const auto [lo, hi] = extremes(v);
            stats << inttochar(t) << ' ' << stat_text(lo) << ' ' << stat_text(mean(v)) << ' '
                  << stat_text(std::sqrt(var(v))) << ' ' << stat_text(hi) << '\n';
        }
        if (!stats.flush()) {
            log.log_io_error("Cannot write the file qd_stats_erc_add.dat", module_name,
                             procedure_at("compute_krel_notgeno"));
            throw error_stop();
        }
    }
    if (lkrel_verbose) {
        std::ofstream debug("fort.5555");
        for (dmatrix::index_type i = 1; i <= erc1.cols(); ++i) {
            debug << i << " 1";
            for (const dmatrix* m : {&erc1, &erc2, &erc_g, &ercss})
                for (dmatrix::index_type t = 1; t <= m->rows(); ++t) debug << ' ' << realtochar((*m)(t, i), "(f0.6)");
            debug << '\n';
        }
    }

    step_header("Step 6: combining the weights for all the animals");
    erc_ss = erc1;
    for (const std::int32_t g : gl)
        for (std::int32_t t = 1; t <= ntrait; ++t) erc_ss(t, g) = ercss(t, g);
    if (lkrel_verbose || save_erc) {
        write_pevercrel("qd_erc_add.dat", effect, gl, ercadd);
        std::vector<std::int32_t> all(static_cast<std::size_t>(erc_ss.cols()));
        for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::int32_t>(i + 1);
        write_pevercrel("qd_erc_ss.dat", effect, all, erc_ss);
    }
}

void krel_type::set_notgeno_reliabilities(std::int32_t t, const std::vector<double>& d) {
    const double g = gvar[effect](t, t);
    for (std::int32_t i = 1; i <= ped.nlength(); ++i) {
        if (static_cast<std::size_t>(i) < idmap.size() && idmap[i] != 0) continue;
        const double f = use_inbreeding ? ped.inb[i] : 0.0;
        final_rel(i, t) = 1.0 - d[static_cast<std::size_t>(i)] / std::fma(f, g, g);
    }
}

void krel_type::reliabilities_by_tier_meyer() {
    const std::int32_t n = ped.nlength();
    std::vector<double> w(static_cast<std::size_t>(n) + 1), d;
    const std::vector<double> no_inbreeding;
    for (std::int32_t t = 1; t <= ntrait; ++t) {
        // One trait at a time: only the diagonal of each block is used.
        double r = rmat[1](t, t), g = gvar[effect](t, t);
        std::int32_t rank = 0;
        ginv1(&r, 1, 1, 1e-08, rank);
        ginv1(&g, 1, 1, 1e-08, rank);
        global_logger().log_message("Tier and Meyer reliabilities for the animals (trait " + inttochar(t) + ")");
        wtime clock;
        for (std::int32_t i = 1; i <= n; ++i) w[i] = erc_ss(t, i);
        tiermeyer(ped, order, use_inbreeding ? std::span<const double>(ped.inb) : std::span<const double>(no_inbreeding),
                  g, r, w, d);
        set_notgeno_reliabilities(t, d);
        global_logger().log_message("Wall clock time (s) for Tier and Meyer: " + realtochar(clock.elapsed(), "(f0.3)"));
    }
}

void krel_type::reliabilities_by_exact_inverse() {
    const std::int32_t nped = ped.nlength();
    const auto nanimals = static_cast<std::int32_t>(erc_ss.cols());
    // Only the diagonal is inverted and read: the traits are taken one at a
    // time as if their residuals were uncorrelated.
    dmatrix rinv = rmat[1];
    for (std::int32_t i = 1; i <= ntrait; ++i) {
        std::int32_t rank = 0;
        ginv1(&rinv(i, i), 1, rinv.rows(), 1e-08, rank);
    }
    param_type param;
    param.ntrait = 1;
    param.neffect = 2;
    allocpar(param);
    param.modelmat.assign(1);
    param.covkind.assign(param.covkind.size(), 0);
    param.nlevel[1] = 1;
    param.nlevel[2] = nped;
    param.typeeff[2] = 3;
    param.effectopt[2] = 1;
    std::vector<pedigree_type> peds(3);
    peds[2] = exact_inverse_pedigree();
    check_and_finalize(param);
    for (std::int32_t t = 1; t <= ntrait; ++t) {
        wtime clock;
        const double g = gvar[effect](t, t);
        param.ginv[2](1, 1) = g;
        std::int32_t rank = 0;
        ginv1(param.ginv[2], 1, 1e-08, rank);
        coosparse c(param.neq, std::nullopt, param.neq, true);
        c.setsymmetric(true);
        addrandompart(param, {}, peds, nullptr, c);
        const double w = rinv(t, t);
        std::vector<double> x(static_cast<std::size_t>(nanimals) + 1, 0.0);
        double sum = 0.0;
        for (std::int32_t i = 1; i <= nanimals; ++i) {
            x[i] = w * erc_ss(t, i);
            sum += x[i];
        }
        c.add(1, 1, sum);
        for (std::int32_t i = 1; i <= nanimals; ++i) {
            if (!(x[i] > 2.220446049250313e-16)) continue;
            c.add(i + 1, i + 1, x[i]);
            c.add(1, i + 1, x[i]);
            // Below the diagonal: the upper storage drops it.
            c.add(i + 1, 1, x[i]);
        }
        crssparse lhs = convertfromcootocrs(c);
        c = coosparse();
        lhs.sort();
        lhs.print_dim();
        std::vector<std::int32_t> perm;
        lhs.getordering(perm);
        lhs.setpermutation32(perm);
        lhs.getspainv();
        // Equation i + 1 is animal i, and diag_vect counts from 0: d[i] is
        // the PEV of animal i.
        set_notgeno_reliabilities(t, lhs.diag_vect());
        global_logger().log_message("Wall clock time (s) for the inverse of the LHS (trait " + inttochar(t) +
                                    "): " + realtochar(clock.elapsed(), "(f0.3)"));
        if (ped.nupg > 0) log_negative_reliabilities(t);
    }
}

pedigree_type krel_type::exact_inverse_pedigree() const {
    auto& log = global_logger();
    if (ped.nupg == 0) return ped;
    const std::int32_t n = ped.nlength(), last_animal = n - ped.nupg;
    if (!groups_as_unknown) {
        log.log_warning("The pedigree has " + inttochar(ped.nupg) +
                        " genetic groups. The exact inverse counts each group as a founder animal of the "
                        "relationship matrix, while the inbreeding and the Tier and Meyer approximation treat a "
                        "group parent as an unknown parent: the reliabilities of the two roads differ, and some "
                        "can be negative. --groups-as-unknown treats group parents as unknown parents here too.");
        return ped;
    }
    // Group parents become unknown parents: the groups stay as levels of
    // their own without relatives, as they are on the other road.
    pedigree_type copy = ped;
    std::int32_t replaced = 0;
    for (std::int32_t i = 1; i <= n; ++i)
        for (const std::int32_t k : {1, 2})
            if (copy.ped(k, i) > last_animal) {
                copy.ped(k, i) = 0;
                ++replaced;
            }
    log.log_information("Genetic groups as unknown parents in the exact inverse: " + inttochar(replaced) +
                        " group parents of " + inttochar(ped.nupg) + " groups");
    return copy;
}

void krel_type::log_negative_reliabilities(std::int32_t t) const {
    std::int32_t negative = 0;
    for (std::int32_t i = 1; i <= ped.nlength(); ++i)
        if ((static_cast<std::size_t>(i) >= idmap.size() || idmap[i] == 0) && final_rel(i, t) < 0.0) ++negative;
    const std::string text = "Reliabilities of the exact inverse below 0 (trait " + inttochar(t) +
                             "): " + inttochar(negative);
    if (negative > 0)
        global_logger().log_warning(text);
    else
        global_logger().log_information(text);
}

}  // namespace krel
