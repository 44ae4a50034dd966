#include <gtest/gtest.h>

#include "binary_run.h"
#include "util/blas_core.h"

namespace krel {
namespace {

using testing::contains;
using testing::run_binary;
using testing::scratch_dir;

// A small generated data set in the run's directory, so that the run's own
// files (the inbreeding cache among them) stay there.
void copy_example(const scratch_dir& dir) {
    const auto r = testing::run_program(dir, KREL_SIMULATE_BINARY,
                                        {"--out", ".", "--animals", "400", "--genotyped", "60", "--snps", "150"});
    ASSERT_EQ(r.status, 0) << r.err;
}

const std::vector<std::string> required = {"--gen", "genotypes.bed", "--freq", "compute", "--ped", "pedigree.txt",
                                           "--effect", "1", "--h2", "heritability.txt", "--gvcv", "genetic_vcv.txt",
                                           "--pev", "pev.txt"};

std::vector<std::string> args_with(std::vector<std::string> head) {
    return testing::followed_by(std::move(head), required);
}

TEST(EndToEnd, KrelRunReachesItsCleanEnd) {
    scratch_dir dir;
    copy_example(dir);
    const auto r = run_binary(dir, args_with({"krel", "--method", "unknown_word"}));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(dir.exists("OK_KREL"));
    // Header, settings and closing lines, in the log and on the screen.
    for (const std::string& piece :
         {std::string("* KREL *"), std::string("Version: v1.19.13-0-g59ec9e7"), std::string("BLAS core in use: "),
          std::string("Name of the genotype file        : genotypes.bed"),
          std::string("Value for beta                   : .050"),
          std::string("Approach for ZRZ                 : 1"),
          std::string("Value for PEC adjustment factor  : 1.000"), std::string("End on "),
          std::string("Elapsed time (s): ")}) {
        EXPECT_TRUE(contains(r.log, piece)) << piece;
        EXPECT_TRUE(contains(r.out, piece)) << piece;
    }
    EXPECT_FALSE(contains(r.log, "Name for SNP solution file"));
    // The memory report goes to standard output only.
    EXPECT_TRUE(contains(r.out, "VmPeak"));
    EXPECT_FALSE(contains(r.log, "VmPeak"));
}

TEST(EndToEnd, NoscreenLeavesOnlyTheMemoryReportOnScreen) {
    scratch_dir dir;
    copy_example(dir);
    const auto r = run_binary(dir, args_with({"krel", "--noscreen"}));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.log, "* KREL *"));
    EXPECT_TRUE(contains(r.log, "End on "));
    EXPECT_FALSE(contains(r.out, "*"));
    EXPECT_TRUE(contains(r.out, "VmRSS:"));

    // A word that only begins with --noscreen keeps the screen.
    const auto r2 = run_binary(dir, args_with({"krel", "--noscreenX"}));
    ASSERT_EQ(r2.status, 0) << r2.err;
    EXPECT_TRUE(contains(r2.out, "* KREL *"));
    EXPECT_TRUE(contains(r2.log, "Unknown argument ignored: --noscreenX"));
}

TEST(EndToEnd, ParserFailureWritesClosingLinesAndFails) {
    scratch_dir dir;
    copy_example(dir);
    const auto r = run_binary(
        dir, args_with({"--noscreen", "krel", "--gwas", "a.txt", "1", "--mgwas", "b.txt", "2"}));
    EXPECT_NE(r.status, 0);
    // The parser's message follows the log when the screen is off.
    EXPECT_TRUE(contains(r.log, "--mgwas excludes --gwas")) << r.log;
    EXPECT_TRUE(contains(r.log, "End on "));
    // Closing lines, but no marker: the run did not do its work.
    EXPECT_FALSE(dir.exists("OK_KREL"));
    EXPECT_FALSE(contains(r.log, "Name of the genotype file"));
}

TEST(EndToEnd, FailuresAfterTheHeaderLeaveNoMarker) {
    scratch_dir dir;
    copy_example(dir);
    dir.write("OK_KREL", "");  // left by an earlier run
    const auto none = run_binary(dir, required);
    EXPECT_NE(none.status, 0);
    EXPECT_FALSE(dir.exists("OK_KREL"));
    EXPECT_TRUE(contains(none.log, "Name of the genotype file        : genotypes.bed"));
    EXPECT_TRUE(contains(none.log, "Size of blocks                   : -9"));
    EXPECT_TRUE(contains(none.log, "Option not supported"));
    EXPECT_TRUE(contains(none.log, "program (352)"));
    EXPECT_FALSE(contains(none.log, "End on "));

    const auto gwas = run_binary(dir, args_with({"gwas"}));
    EXPECT_NE(gwas.status, 0);
    EXPECT_FALSE(dir.exists("OK_KREL"));
    EXPECT_TRUE(contains(gwas.log, "Size of blocks                   : -9"));
    EXPECT_TRUE(contains(gwas.log, "GWAS approach: a solution file must be provided"));

    const auto bad_number = run_binary(dir, args_with({"krel", "--effect", "one"}));
    EXPECT_NE(bad_number.status, 0);
    EXPECT_TRUE(contains(bad_number.log, "Issue with --effect with FLAP error "));
}

TEST(EndToEnd, EchoOfSolutionFilesAndCutNames) {
    scratch_dir dir;
    copy_example(dir);
    const std::string long_name = std::string(130, 'x');
    const auto r = run_binary(dir, {"gwas", "--gen", long_name, "--freq", "f", "--ped", "p",
                                    "--effect", "1", "--mgwas", "sol.txt", "77"});
    // The echo comes first; then the missing pedigree file ends the run.
    EXPECT_NE(r.status, 0);
    EXPECT_TRUE(contains(r.log, "readpedigree_nomax"));
    EXPECT_TRUE(contains(r.log, "I/O ERROR: Cannot open the"));
    EXPECT_TRUE(contains(r.log, std::string(128, 'x')));
    EXPECT_FALSE(contains(r.log, std::string(129, 'x')));
    EXPECT_TRUE(contains(r.log, "Name for Tarnelo SNP solution file   : sol.txt"));
    EXPECT_TRUE(contains(r.log, "Value for Tarnelo SNP solution effect: 77"));
    EXPECT_FALSE(contains(r.log, "Name for SNP solution file        :"));
    EXPECT_FALSE(contains(r.log, "TM algo. for ungenotyped animals"));
}

TEST(EndToEnd, ScriptHookRunsBeforeTheWork) {
    scratch_dir dir;
    copy_example(dir);
    dir.write("before_krel", "echo hook > hook.txt\n");
    const auto ok = run_binary(dir, args_with({"krel"}));
    ASSERT_EQ(ok.status, 0);
    EXPECT_TRUE(dir.exists("hook.txt"));
    EXPECT_TRUE(contains(ok.log, "Will perform: echo hook > hook.txt"));

    dir.write("before_krel", "true\nexit 3\necho never > never.txt\n");
    const auto failed = run_binary(dir, args_with({"krel"}));
    EXPECT_EQ(failed.status, 3);
    EXPECT_TRUE(contains(failed.log, "Non-zero exit code"));
    EXPECT_FALSE(dir.exists("never.txt"));
    EXPECT_FALSE(contains(failed.log, "* KREL *"));
}

TEST(EndToEnd, HelpVersionAndMarkdown) {
    scratch_dir dir;
    copy_example(dir);
    const auto help = run_binary(dir, {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(contains(help.out, "--gen FILE=none REQUIRED")) << help.out;
    EXPECT_TRUE(contains(help.out, "  krel                        To approximate genomic reliabilities")) << help.out;
    EXPECT_TRUE(contains(help.out, "  gwas                        To compute p-values")) << help.out;
    // The options of a subcommand appear in its own help only.
    EXPECT_FALSE(contains(help.out, "--ungeno_tm"));
    const auto krel_help = run_binary(dir, {"krel", "--help"});
    EXPECT_EQ(krel_help.status, 0);
    EXPECT_TRUE(contains(krel_help.out, "--ungeno_tm")) << krel_help.out;
    const auto version = run_binary(dir, {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(contains(version.out, "v1.19.13-0-g59ec9e7"));
    const auto md = run_binary(dir, {"--markdown"});
    EXPECT_EQ(md.status, 0);
    ASSERT_TRUE(dir.exists("krel.md"));
    EXPECT_TRUE(contains(dir.read("krel.md"), "`--mgwas`"));
}

TEST(EndToEnd, BlasCoreChoice) {
    scratch_dir dir;
    copy_example(dir);
    const auto chosen = run_binary(dir, args_with({"krel"}));
    ASSERT_EQ(chosen.status, 0);
    const char* preset = std::getenv("OPENBLAS_CORETYPE");
    const int own = blas_core_rank(blas_core_in_use());
    if ((preset == nullptr || *preset == '\0') && own >= 0 &&
        own < blas_core_rank(preferred_blas_core())) {
        EXPECT_TRUE(contains(chosen.log, "BLAS core in use: " + preferred_blas_core() +
                                             " (selected for this CPU; the library chose "))
            << chosen.log;
    }
    const auto kept = run_binary(dir, args_with({"krel"}), "KREL_KEEP_BLAS_CORE=1");
    ASSERT_EQ(kept.status, 0);
    EXPECT_TRUE(contains(kept.log, "BLAS core in use: "));
    EXPECT_FALSE(contains(kept.log, "selected for this CPU"));
    const auto user = run_binary(dir, args_with({"krel"}), "OPENBLAS_CORETYPE=Haswell");
    ASSERT_EQ(user.status, 0);
    EXPECT_TRUE(contains(user.log, "BLAS core in use: Haswell (set by OPENBLAS_CORETYPE)"));
}

}  // namespace
}  // namespace krel
