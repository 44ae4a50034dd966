#include "report/run_report.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include "inputs/solution_files.h"
#include "report/plots.h"
#include "report/snp_statistics.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"
#include "util/run_timer.h"

namespace krel {

namespace {

constexpr const char* varhat_file = "qd_varhatsnpeffects_approx.dat";

// A SNP file of the run: SNP number, effect, 0, one value a trait.
dmatrix read_snp_values(const std::string& file, std::int32_t ntrait, std::int32_t nsnp) {
    std::ifstream in(file);
    dmatrix values(ntrait, nsnp, std::nan(""));
    std::string line;
    std::int64_t record = 0;
    while (std::getline(in, line)) {
        ++record;
        std::istringstream words(line);
        std::int64_t snp = 0, effect = 0, zero = 0;
        words >> snp >> effect >> zero;
        bool ok = static_cast<bool>(words) && snp >= 1 && snp <= nsnp;
        for (std::int32_t t = 1; ok && t <= ntrait; ++t) {
            std::string w;
            ok = static_cast<bool>(words >> w);
            if (ok) values(t, snp) = std::strtod(w.c_str(), nullptr);
        }
        if (!ok) {
            global_logger().log_error("Record " + std::to_string(record) + " of " + file + " is not a SNP result",
                                      "report", procedure_at("read_snp_values"));
            throw error_stop();
        }
    }
    return values;
}

}  // namespace

snp_report report_snp_tests(const snp_report_inputs& in) {
    auto& log = global_logger();
    const dmatrix varhat = read_snp_values(varhat_file, in.ntrait, in.nsnp);
    dmatrix b(in.nsnp, in.ntrait);
    if (in.tarnelo_format)
        readsol_tarnelo_reg(in.solfile, in.effect, b);
    else
        readsol(in.solfile, in.effect, b);
    const std::vector<snp_annotation> snps =
        in.is_plink ? read_bim_annotation(in.genofile.substr(0, in.genofile.rfind('.')) + ".bim", in.nsnp)
                    : numbered_annotation(in.nsnp);
    snp_report out;
    for (std::int32_t t = 1; t <= in.ntrait; ++t) {
        std::vector<double> bt(in.nsnp), vt(in.nsnp);
        for (std::int32_t j = 1; j <= in.nsnp; ++j) {
            bt[j - 1] = b(j, t);
            vt[j - 1] = varhat(t, j);
        }
        const std::vector<snp_test> tests = snp_tests(bt, vt, in.varies, in.freq);
        const std::string file = trait_file_name("krel_sumstats", "tsv", t, in.ntrait);
        write_sumstats(file, snps, tests);
        out.files.push_back(file);
        std::int64_t none = 0;
        for (const snp_test& s : tests) none += s.informative ? 0 : 1;
        out.without_information += none;
        const double lambda = genomic_inflation(tests);
        out.lambda.push_back(lambda);
        const std::string trait = " (trait " + inttochar(t) + ")";
        log.log_message("Summary statistics of the SNP tests" + trait + ": " + file);
        log.log_message("SNPs without information (genotypes alike or no variance), NA" + trait + ": " +
                        inttochar(static_cast<std::int64_t>(none)));
        log.log_message("Genomic inflation factor lambda" + trait + ": " + realtochar(lambda, "(f0.4)"));
        if (in.plots) {
            const std::string suffix = in.ntrait > 1 ? ", trait " + inttochar(t) : std::string();
            const std::string manhattan = trait_file_name("krel_manhattan", "png", t, in.ntrait);
            const std::string qq = trait_file_name("krel_qq", "png", t, in.ntrait);
            wtime clock;
            plot_manhattan(manhattan.substr(0, manhattan.size() - 4), snps, tests, "Manhattan plot" + suffix);
            clock.stop("Plot " + manhattan + " and its PDF");
            clock.start();
            plot_qq(qq.substr(0, qq.size() - 4), tests, lambda, "QQ plot of the SNP tests" + suffix);
            clock.stop("Plot " + qq + " and its PDF");
        }
    }
    return out;
}

std::vector<trait_reliabilities> report_reliabilities(const reliability_inputs& in) {
    std::vector<trait_reliabilities> out;
    if (in.pedigree == nullptr || in.genomic == nullptr) return out;
    const std::int64_t n = std::min<std::int64_t>(in.genomic->rows(), in.animals);
    for (std::int32_t t = 1; t <= in.ntrait && t <= in.genomic->cols(); ++t) {
        reliability_groups g;
        for (std::int64_t i = 1; i <= n; ++i) {
            const bool geno = static_cast<std::size_t>(i) < in.genotyped.size() && in.genotyped[i];
            const double ped = i <= in.pedigree->rows() && t <= in.pedigree->cols() ? (*in.pedigree)(i, t) : std::nan("");
            if (geno) {
                g.pedigree_genotyped.push_back(ped);
                g.genomic_genotyped.push_back((*in.genomic)(i, t));
            } else if (in.non_genotyped_done) {
                g.pedigree_other.push_back(ped);
                g.genomic_other.push_back((*in.genomic)(i, t));
            }
        }
        trait_reliabilities r;
        r.trait = t;
        r.genotyped = summarise_reliabilities(g.genomic_genotyped, in.floor);
        r.has_non_genotyped = in.non_genotyped_done;
        if (in.non_genotyped_done) r.non_genotyped = summarise_reliabilities(g.genomic_other, in.floor);
        out.push_back(r);
        if (in.plots) {
            const std::string suffix = in.ntrait > 1 ? ", trait " + inttochar(t) : std::string();
            const std::string dist = trait_file_name("krel_reliabilities", "png", t, in.ntrait);
            const std::string scatter = trait_file_name("krel_reliability_scatter", "png", t, in.ntrait);
            wtime clock;
            plot_reliability_distribution(dist.substr(0, dist.size() - 4), g, "Reliabilities" + suffix);
            clock.stop("Plot " + dist + " and its PDF");
            clock.start();
            plot_reliability_scatter(scatter.substr(0, scatter.size() - 4), g,
                                     "Genotyped animals: genomic against pedigree reliability" + suffix);
            clock.stop("Plot " + scatter + " and its PDF");
        }
    }
    return out;
}

}  // namespace krel
