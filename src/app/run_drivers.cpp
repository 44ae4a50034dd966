#include "app/run_drivers.h"

#include <xmmintrin.h>
#include <pmmintrin.h>

#include <exception>
#include <iostream>
#include <new>

#include "app/result_checks.h"
#include "app/run_header.h"
#include "engine/reliability_engine.h"
#include "util/blas_core.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"
#include "util/run_timer.h"

namespace krel {

namespace {

constexpr std::string_view krel_group = "krel";
constexpr std::string_view gwas_group = "gwas";

std::string logical_text(bool v) { return v ? "T" : "F"; }

template <class T>
void read_cla(const command_line& cli, std::string_view switch_name, T& value,
              std::string_view group = {}) {
    if (const int err = cli.get_cla(switch_name, value, group); err != 0) {
        global_logger().log_error("Issue with " + std::string(switch_name) + " with FLAP error " +
                                  inttochar(static_cast<std::int32_t>(err)));
        throw error_stop();
    }
}

// A file name and an effect number, the effect read from the first four
// columns of its value.
void read_solution_pair(const command_line& cli, std::string_view switch_name, std::string& file,
                        std::int32_t& effect) {
    std::vector<std::string> values;
    if (const int err = cli.get_cla_list(switch_name, values); err != 0 || values.size() != 2) {
        global_logger().log_error(
            "Issue with " + std::string(switch_name) + " with FLAP error " +
            inttochar(static_cast<std::int32_t>(err != 0 ? err : cla_error_value_count)));
        throw error_stop();
    }
    file = values[0];
    if (!read_integer_i4(values[1], effect)) {
        global_logger().log_error("Issue with " + std::string(switch_name) + ": the effect \"" +
                                  values[1] + "\" is not an integer");
        throw error_stop();
    }
}

void set_flush_to_zero() {
    _MM_SET_FLUSH_ZERO_MODE(_MM_FLUSH_ZERO_ON);
    _MM_SET_DENORMALS_ZERO_MODE(_MM_DENORMALS_ZERO_ON);
}

}  // namespace

bool prescan_noscreen(const std::vector<std::string>& args) {
    for (const std::string& arg : args) {
        std::string_view seen = std::string_view(arg).substr(0, 30);
        const auto b = seen.find_first_not_of(' ');
        const auto e = seen.find_last_not_of(' ');
        if (b != std::string_view::npos && seen.substr(b, e - b + 1) == "--noscreen") return true;
    }
    return false;
}

std::int32_t method_from_word(std::string_view word) { return word == "low_mem" ? 2 : 1; }

bool use_tier_meyer(std::int64_t pedigree_levels, bool ungeno_tm) {
    return pedigree_levels > exact_inverse_max_levels || ungeno_tm;
}

run_options read_common_options(const command_line& cli) {
    run_options o;
    read_cla(cli, "--blocks", o.blocks);
    read_cla(cli, "--gen", o.genofile);
    read_cla(cli, "--freq", o.freqfile);
    read_cla(cli, "--beta", o.beta);
    read_cla(cli, "--ped", o.pedfile);
    read_cla(cli, "--pev", o.pevfile);
    read_cla(cli, "--mrel", o.relfile);
    read_cla(cli, "--rvcv", o.rvcvfile);
    read_cla(cli, "--gvcv", o.gvcvfile);
    read_cla(cli, "--svcv", o.svcvfile);
    read_cla(cli, "--h2", o.h2file);
    read_cla(cli, "--effect", o.effect);
    read_cla(cli, "--noinb", o.use_inbreeding);
    read_cla(cli, "--inbfile", o.inbfile);
    read_cla(cli, "--verbose", lkrel_verbose);
    read_cla(cli, "--pec", o.save_pec);
    read_cla(cli, "--scale_snp_var", o.scale_snp_var);
    read_solution_pair(cli, "--gwas", o.gwas_file, o.gwas_effect);
    read_solution_pair(cli, "--mgwas", o.mgwas_file, o.mgwas_effect);
    return o;
}

void echo_common_options(const run_options& o) {
    auto& log = global_logger();
    log.log_message("Name of the genotype file        : " + o.genofile);
    log.log_message("Name of the allele frequency file: " + o.freqfile);
    log.log_message("Value for beta                   : " + realtochar(o.beta, "(f0.3)"));
    log.log_message("Name of the pedigree file        : " + o.pedfile);
    log.log_message("Name of the inbreeding coef. file: " + o.inbfile);
    log.log_message("Name for PEV file                : " + o.pevfile);
    log.log_message("Name for REL file                : " + o.relfile);
    log.log_message("Name for residual (co)variances  : " + o.rvcvfile);
    log.log_message("Name for genetic (co)variances   : " + o.gvcvfile);
    log.log_message("Name for SNP (co)variances       : " + o.svcvfile);
    log.log_message("Name for heritabilities          : " + o.h2file);
    log.log_message("Value for animal effect          : " + inttochar(o.effect));
    log.log_message("Inbreeding                       : " + logical_text(o.use_inbreeding));
    log.log_message("Write PEC                        : " + logical_text(o.save_pec));
    log.log_message("Scale SNP variances by (1-beta)  : " + logical_text(o.scale_snp_var));
    log.log_message("Size of blocks                   : " + inttochar(o.blocks));
    if (o.gwas_file != "none") {
        log.log_message("Name for SNP solution file        : " + o.gwas_file);
        log.log_message("Value for SNP solution effect     : " + inttochar(o.gwas_effect));
    }
    if (o.mgwas_file != "none") {
        log.log_message("Name for Tarnelo SNP solution file   : " + o.mgwas_file);
        log.log_message("Value for Tarnelo SNP solution effect: " + inttochar(o.mgwas_effect));
    }
}

krel_group_options read_krel_options(const command_line& cli) {
    krel_group_options o;
    read_cla(cli, "--pheno", o.phenofile, krel_group);
    read_cla(cli, "--ref", o.reffile, krel_group);
    read_cla(cli, "--edc-adjust-factor", o.edc_adjust_factor, krel_group);
    read_cla(cli, "--pev-adjust-factor", o.pev_adjust_factor, krel_group);
    read_cla(cli, "--only-geno", o.only_geno, krel_group);
    std::string method_word;
    read_cla(cli, "--method", method_word, krel_group);
    o.method = method_from_word(method_word);
    read_cla(cli, "--erc", o.save_erc, krel_group);
    read_cla(cli, "--ungeno_tm", o.ungeno_tm, krel_group);
    read_cla(cli, "--groups-as-unknown", o.groups_as_unknown, krel_group);
    return o;
}

void echo_krel_options(const krel_group_options& o) {
    auto& log = global_logger();
    log.log_message("TM algo. for ungenotyped animals : " + logical_text(o.ungeno_tm));
    log.log_message("Name of the phenotyped ind. file : " + o.phenofile);
    log.log_message("Name of the reference geno. file : " + o.reffile);
    log.log_message("Value for EDC adjustment factor  : " + realtochar(o.edc_adjust_factor, "(f0.3)"));
    log.log_message("Value for PEC adjustment factor  : " + realtochar(o.pev_adjust_factor, "(f0.3)"));
    log.log_message("Write ERC                        : " + logical_text(o.save_erc));
    log.log_message("Approach for ZRZ                 : " + inttochar(o.method));
    log.log_message("Groups as unknown parents        : " + logical_text(o.groups_as_unknown));
}

krel_init_options init_options(const run_options& o) {
    krel_init_options k;
    k.pedfile = o.pedfile;
    k.genfile = o.genofile;
    k.freqfile = o.freqfile;
    k.rvcv = o.rvcvfile;
    k.gvcv = o.gvcvfile;
    k.svcv = o.svcvfile;
    k.pevfile = o.pevfile;
    k.relfile = o.relfile;
    k.effect = o.effect;
    k.beta = o.beta;
    k.use_inbreeding = o.use_inbreeding;
    k.save_pec = o.save_pec;
    k.scale_snp_var = o.scale_snp_var;
    k.inbfile = o.inbfile;
    k.h2file = o.h2file;
    return k;
}

static bool has_pvalues(const run_options& opts) { return opts.gwas_file != "none" || opts.mgwas_file != "none"; }

void run_pvalues(krel_type& krel, const run_options& opts) {
    if (opts.gwas_file != "none") krel.pvalue(opts.gwas_file, opts.gwas_effect);
    if (opts.mgwas_file != "none") krel.pvalue(opts.mgwas_file, opts.mgwas_effect, true);
}

void run_krel(const command_line& cli, const run_options& opts) {
    const krel_group_options kopts = read_krel_options(cli);
    echo_krel_options(kopts);
    krel_type krel;
    krel_init_options k = init_options(opts);
    k.phenofile = kopts.phenofile;
    k.reffile = kopts.reffile;
    k.save_erc = kopts.save_erc;
    k.method = kopts.method;
    k.edc_adjust_factor = kopts.edc_adjust_factor;
    k.pev_adjust_factor = kopts.pev_adjust_factor;
    krel.groups_as_unknown = kopts.groups_as_unknown;
    krel.init_krel(k);
    krel.compute_krel_geno(kopts.only_geno, opts.blocks, 0, false);
    run_pvalues(krel, opts);
    const run_outputs written{has_pvalues(opts), kopts.only_geno, !kopts.only_geno,
                              !kopts.only_geno && (kopts.save_erc || lkrel_verbose)};
    if (kopts.only_geno) {
        check_result_files(run_result_files(written, krel.monomorphic_snps()));
        return;
    }
    krel.compute_krel_notgeno();
    // The exact inverse costs a sparse factorisation of the whole pedigree
    // for each trait: beyond a million animals the approximation takes over.
    if (krel.getsizeped() > 1000000 || kopts.ungeno_tm)
        krel.reliabilities_by_tier_meyer();
    else
        krel.reliabilities_by_exact_inverse();
    write_reliability_files(krel);
    check_result_files(run_result_files(written, krel.monomorphic_snps()));
}

void run_gwas(const command_line& /*cli*/, const run_options& opts) {
    krel_type krel;
    if (opts.gwas_file == "none" && opts.mgwas_file == "none") {
        global_logger().log_error("GWAS approach: a solution file must be provided");
        throw error_stop();
    }
    krel_init_options k = init_options(opts);
    k.phenofile = "rela";
    k.reffile = "none";
    k.save_erc = false;
    krel.init_krel(k);
    krel.compute_krel_geno(false, opts.blocks, 1000, true);
    run_pvalues(krel, opts);
    check_result_files(run_result_files({has_pvalues(opts), false, false, false}, krel.monomorphic_snps()));
}

int krel_program(int argc, char** argv) {
    set_flush_to_zero();
    const std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    const std::string word = to_lower(program_word);
    auto& log = global_logger();
    if (!prescan_noscreen(args)) log.add_log_unit(std::cout);
    try {
        log.add_log_file("log_" + word + ".dat", "replace");
    } catch (const std::exception& e) {
        std::cerr << e.what() << '\n';
        return 1;
    }
    try {
        run_script("before_" + word);
        header(program_word, program_version, program_commit);
        log.log_message(blas_core_report());
        std::ostream& unit = *log.configuration().front();
        command_line cli(unit);
        const int parsed = cli.parse(args);
        if (parsed != parse_ok) {
            endheader(program_word);
            return parsed < 0 ? 0 : 1;
        }
        for (const std::string& arg : cli.ignored_arguments())
            log.log_warning("Unknown argument ignored: " + arg);
        const run_options opts = read_common_options(cli);
        echo_common_options(opts);
        if (cli.is_called_group(krel_group)) {
            run_krel(cli, opts);
        } else if (cli.is_called_group(gwas_group)) {
            run_gwas(cli, opts);
        } else {
            log.log_error("Option not supported", "krel", "program (352)");
            throw error_stop();
        }
        vmstat();
        endheader(program_word);
        return 0;
    } catch (const error_stop& stop) {
        return stop.status();
    } catch (const std::bad_alloc&) {
        log.log_error("Not enough memory to go on");
        return 1;
    } catch (const std::exception& e) {
        log.log_error(std::string("Unexpected failure: ") + e.what());
        return 1;
    }
}

}  // namespace krel
