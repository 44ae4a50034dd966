// The final check of the result files before OK_KREL: non-finite values stop
// the run unless they belong to the degenerate records of their file.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "app/result_checks.h"
#include "engine/run_results.h"
#include "util/error_stop.h"

namespace krel {
namespace {

using testing::contains;
using testing::scratch_dir;

TEST(ResultChecks, NonFiniteValuesAreKeptOnlyInDegenerateRecords) {
    struct row {
        const char* text;
        std::vector<std::int32_t> degenerate;
        std::int64_t kept, bad_line;
    };
    const std::vector<row> rows = {
        {"1 1 0 .50000\n2 1 0 1.00000\n", {}, 0, 0},
        {"1 1 0 .5 .25\n2 1 0 .5 NaN\n", {}, 0, 2},
        {"1 1 0 .5\n2 1 0 -Infinity\n3 1 0 inf\n", {}, 0, 2},
        {"1 2 0 NaN\n2 2 0 1.5\n3 2 0 Infinity\n", {1, 3}, 2, 0},
        {"1 2 0 NaN\n2 2 0 NaN\n", {1}, 1, 2},
        {"1 1 0 ********\n", {}, 0, 1},
        {"1 1 0 1.7976931348623157e+308\n\n2 1 0 0\n", {}, 0, 0},
        {"1 .120 nan .300 .400\n", {}, 0, 1},  // statistics lines: every item after the first
        {"", {}, 0, 0},
    };
    scratch_dir dir;
    for (const row& r : rows) {
        SCOPED_TRACE(r.text);
        dir.write("qd_test.dat", r.text);
        const result_file file{(dir / "qd_test.dat").string(), r.degenerate, "test records"};
        const result_file_scan scan = scan_result_file(file);
        EXPECT_EQ(scan.degenerate_nonfinite, r.kept);
        EXPECT_EQ(scan.bad_line, r.bad_line);
        testing::log_capture log;
        if (r.bad_line != 0) {
            EXPECT_THROW(check_result_files({file}), error_stop);
            EXPECT_TRUE(contains(log.text(), "qd_test.dat")) << log.text();
        } else {
            EXPECT_NO_THROW(check_result_files({file}));
            EXPECT_EQ(contains(log.text(), "kept: test records"), r.kept > 0) << log.text();
        }
    }
    testing::log_capture log;
    EXPECT_THROW(check_result_files({{(dir / "qd_missing.dat").string(), {}, {}}}), error_stop);
    EXPECT_TRUE(contains(log.text(), "qd_missing.dat"));
}

TEST(ResultChecks, TheFilesOfEachKindOfRun) {
    const std::vector<std::int32_t> mono = {3, 7};
    auto names = [&](const run_outputs& run) {
        std::string all;
        for (const result_file& f : run_result_files(run, mono)) {
            all += f.name + (f.degenerate_records == mono ? "* " : " ");
            if (f.degenerate_records != mono) {
                EXPECT_TRUE(f.degenerate_records.empty()) << f.name;
            }
        }
        return all;
    };
    EXPECT_EQ(names({false, false, false, false}), "qd_pevsnpeffects.dat ");
    EXPECT_EQ(names({true, false, false, false}),
              "qd_pevsnpeffects.dat qd_zscores_approx.dat* qd_pvalues_approx.dat* qd_lr_approx.dat* "
              "qd_varhatsnpeffects_approx.dat ");
    EXPECT_EQ(names({false, true, false, false}), "qd_pevsnpeffects.dat qd_sskreliabilities_geno.dat ");
    EXPECT_EQ(names({false, false, true, true}),
              "qd_pevsnpeffects.dat qd_sskreliabilities.dat qd_sskreliabilities_tarnelo.dat "
              "qd_erc_add.dat qd_erc_ss.dat ");
}

// A SNP variance far below the PEV of the SNP effects makes every variance
// of an estimate negative, and every z-score and p-value not a number: the
// run must say so and leave no marker.
TEST(ResultChecks, ARunWithNonFiniteStatisticsEndsWithoutTheMarker) {
    scratch_dir dir;
    const std::filesystem::path herd = std::filesystem::path(KREL_SOURCE_DIR) / "examples" / "herd";
    for (const char* f : {"pedigree.txt", "pev.txt", "genotypes.bed", "genotypes.bim", "genotypes.fam",
                          "residual_vcv.txt", "genetic_vcv.txt", "snp_solutions.txt"})
        std::filesystem::copy_file(herd / f, dir / f);
    dir.write("snp_vcv.txt", "1e-6\n");
    const std::vector<std::string> args = {"gwas",  "--ped",  "pedigree.txt",     "--effect", "1",
                                           "--gen", "genotypes.bed", "--freq", "compute",  "--rvcv",
                                           "residual_vcv.txt", "--gvcv", "genetic_vcv.txt", "--svcv",
                                           "snp_vcv.txt", "--pev", "pev.txt", "--gwas", "snp_solutions.txt", "2"};
    const auto r = testing::run_binary(dir, args);
    EXPECT_NE(r.status, 0);
    EXPECT_FALSE(dir.exists("OK_KREL"));
    EXPECT_TRUE(contains(testing::flat(r.log), "The result file qd_zscores_approx.dat holds a value that is not a "
                                               "finite number"))
        << r.log;
}

}  // namespace
}  // namespace krel
