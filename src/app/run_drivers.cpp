#include "app/run_drivers.h"

#include <xmmintrin.h>
#include <pmmintrin.h>

#include <exception>
#include <iostream>
#include <new>

#include "app/result_checks.h"
#include "app/run_header.h"
#include "engine/reliability_engine.h"
#include "inputs/snp_variability.h"
#include "report/run_report.h"
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
    read_cla(cli, "--plots", o.plots);
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
    if (o.plots) log.log_message("Plots                            : T");
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

namespace {

std::vector<std::pair<std::string, std::string>> summary_options(const run_options& o) {
    return {{"gen", o.genofile},          {"freq", o.freqfile},
            {"beta", realtochar(o.beta)}, {"ped", o.pedfile},
            {"pev", o.pevfile},           {"mrel", o.relfile},
            {"rvcv", o.rvcvfile},         {"gvcv", o.gvcvfile},
            {"svcv", o.svcvfile},         {"h2", o.h2file},
            {"effect", inttochar(o.effect)}, {"inbfile", o.inbfile},
            {"inbreeding", logical_text(o.use_inbreeding)}, {"save_pec", logical_text(o.save_pec)},
            {"scale_snp_var", logical_text(o.scale_snp_var)}, {"blocks", inttochar(o.blocks)},
            {"gwas", o.gwas_file + " " + inttochar(o.gwas_effect)},
            {"mgwas", o.mgwas_file + " " + inttochar(o.mgwas_effect)},
            {"verbose", logical_text(lkrel_verbose)}, {"plots", logical_text(o.plots)}};
}

bool has_pvalues(const run_options& opts) { return opts.gwas_file != "none" || opts.mgwas_file != "none"; }

void record_inputs(const krel_type& krel, run_record& record) {
    record.animals = krel.ped.nreal();
    record.genotyped = krel.ngeno;
    record.snps = krel.nsnp;
    record.traits = krel.ntrait;
}

// The summary statistics (and plots) of the last SNP test, from its files.
void write_snp_report(const krel_type& krel, const run_options& opts, run_record& record) {
    const bool tarnelo = opts.mgwas_file != "none";
    snp_report_inputs in;
    in.genofile = opts.genofile;
    in.is_plink = krel.is_plink;
    in.solfile = tarnelo ? opts.mgwas_file : opts.gwas_file;
    in.effect = tarnelo ? opts.mgwas_effect : opts.gwas_effect;
    in.tarnelo_format = tarnelo;
    in.ntrait = krel.ntrait;
    in.nsnp = krel.nsnp;
    snp_variability v = snp_variability_of(krel.geno);
    in.varies = std::move(v.varies);
    in.freq = std::move(v.observed_frequency);
    if (!krel.is_plink && opts.freqfile != "none")
        for (std::int32_t j = 1; j <= krel.nsnp; ++j) in.freq[j - 1] = krel.snp_frequency(j);
    in.plots = opts.plots;
    const snp_report r = report_snp_tests(in);
    record.sumstats_files = r.files;
    record.snps_without_information = r.without_information;
    record.inflation = r.lambda;
}

void write_reliability_report(const krel_type& krel, bool non_genotyped_done, bool plots, run_record& record) {
    reliability_inputs in;
    in.ntrait = krel.ntrait;
    in.pedigree = &krel.rel;
    in.genomic = &krel.final_rel;
    in.animals = krel.ped.nreal();
    in.genotyped.assign(krel.idmap.size(), false);
    for (std::size_t level = 1; level < krel.idmap.size(); ++level) in.genotyped[level] = krel.idmap[level] != 0;
    in.non_genotyped_done = non_genotyped_done;
    in.plots = plots;
    record.reliabilities = report_reliabilities(in);
}

}  // namespace

void run_pvalues(krel_type& krel, const run_options& opts, run_record& record) {
    if (opts.gwas_file != "none") record.step("pvalue", [&] { krel.pvalue(opts.gwas_file, opts.gwas_effect); });
    if (opts.mgwas_file != "none")
        record.step("pvalue", [&] { krel.pvalue(opts.mgwas_file, opts.mgwas_effect, true); });
    if (opts.gwas_file != "none" || opts.mgwas_file != "none")
        record.step("report_snp_tests", [&] { write_snp_report(krel, opts, record); });
}

void run_krel(const command_line& cli, const run_options& opts, run_record& record) {
    const krel_group_options kopts = read_krel_options(cli);
    echo_krel_options(kopts);
    record.options.insert(record.options.end(),
                          {{"pheno", kopts.phenofile},
                           {"ref", kopts.reffile},
                           {"edc_adjust_factor", realtochar(kopts.edc_adjust_factor)},
                           {"pev_adjust_factor", realtochar(kopts.pev_adjust_factor)},
                           {"only_geno", logical_text(kopts.only_geno)},
                           {"method", inttochar(kopts.method)},
                           {"save_erc", logical_text(kopts.save_erc)},
                           {"ungeno_tm", logical_text(kopts.ungeno_tm)},
                           {"groups_as_unknown", logical_text(kopts.groups_as_unknown)}});
    krel_type krel;
    krel_init_options k = init_options(opts);
    k.phenofile = kopts.phenofile;
    k.reffile = kopts.reffile;
    k.save_erc = kopts.save_erc;
    k.method = kopts.method;
    k.edc_adjust_factor = kopts.edc_adjust_factor;
    k.pev_adjust_factor = kopts.pev_adjust_factor;
    krel.groups_as_unknown = kopts.groups_as_unknown;
    record.step("init_krel", [&] { krel.init_krel(k); });
    record_inputs(krel, record);
    record.step("compute_krel_geno", [&] { krel.compute_krel_geno(kopts.only_geno, opts.blocks, 0, false); });
    run_pvalues(krel, opts, record);
    const run_outputs written{has_pvalues(opts), kopts.only_geno, !kopts.only_geno,
                              !kopts.only_geno && (kopts.save_erc || lkrel_verbose)};
    if (kopts.only_geno) {
        check_result_files(run_result_files(written, krel.monomorphic_snps()));
        record.step("report_reliabilities", [&] { write_reliability_report(krel, false, opts.plots, record); });
        return;
    }
    record.step("compute_krel_notgeno", [&] { krel.compute_krel_notgeno(); });
    // The exact inverse costs a sparse factorisation of the whole pedigree
    // for each trait: beyond a million animals the approximation takes over.
    if (use_tier_meyer(krel.getsizeped(), kopts.ungeno_tm))
        record.step("tier_meyer_approximation", [&] { krel.reliabilities_by_tier_meyer(); });
    else
        record.step("exact_inverse", [&] { krel.reliabilities_by_exact_inverse(); });
    record.step("write_reliabilities", [&] { write_reliability_files(krel); });
    check_result_files(run_result_files(written, krel.monomorphic_snps()));
    record.step("report_reliabilities", [&] { write_reliability_report(krel, true, opts.plots, record); });
}

void run_gwas(const command_line& /*cli*/, const run_options& opts, run_record& record) {
    krel_type krel;
    if (opts.gwas_file == "none" && opts.mgwas_file == "none") {
        global_logger().log_error("GWAS approach: a solution file must be provided");
        throw error_stop();
    }
    krel_init_options k = init_options(opts);
    k.phenofile = "rela";
    k.reffile = "none";
    k.save_erc = false;
    record.step("init_krel", [&] { krel.init_krel(k); });
    record_inputs(krel, record);
    record.step("compute_krel_geno", [&] { krel.compute_krel_geno(false, opts.blocks, 1000, true); });
    run_pvalues(krel, opts, record);
    check_result_files(run_result_files({has_pvalues(opts), false, false, false}, krel.monomorphic_snps()));
}

namespace {

// The summary of the run as it ends, with its exit status and, for a stopped
// run, the last error logged.
int finish_summary(run_record& record, int status, const std::string& error) {
    record.exit_status = status;
    record.error = error;
    record.result_files = files_written_since(record.start);
    write_run_summary(run_summary_file, record);
    return status;
}

}  // namespace

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
    run_record record;
    record.program = word;
    record.version = std::string(program_version);
    record.commit = std::string(program_commit);
    record.arguments = args;
    try {
        run_script("before_" + word);
        header(program_word, program_version, program_commit);
        log.log_message(blas_core_report());
        std::ostream& unit = *log.configuration().front();
        command_line cli(unit);
        const int parsed = cli.parse(args);
        if (parsed != parse_ok) {
            // Help and the version are served in full; a parser error is no
            // finished run, though its summary is written.
            endheader(program_word, parsed < 0);
            if (parsed < 0) return 0;
            return finish_summary(record, 1, "The command line was not accepted");
        }
        for (const std::string& arg : cli.ignored_arguments())
            log.log_warning("Unknown argument ignored: " + arg);
        const run_options opts = read_common_options(cli);
        echo_common_options(opts);
        record.options = summary_options(opts);
        check_option_values(opts);
        if (cli.is_called_group(krel_group)) {
            record.command = krel_group;
            run_krel(cli, opts, record);
        } else if (cli.is_called_group(gwas_group)) {
            record.command = gwas_group;
            run_gwas(cli, opts, record);
        } else {
            log.log_error("Option not supported", "krel", "program (352)");
            throw error_stop();
        }
        finish_summary(record, 0, "");
        vmstat();
        endheader(program_word);
        return 0;
    } catch (const error_stop& stop) {
        return finish_summary(record, stop.status(), log.last_error());
    } catch (const std::bad_alloc&) {
        log.log_error("Not enough memory to go on");
        return finish_summary(record, 1, log.last_error());
    } catch (const std::exception& e) {
        log.log_error(std::string("Unexpected failure: ") + e.what());
        return finish_summary(record, 1, log.last_error());
    }
}

}  // namespace krel
