// Runs of the real program on copies of examples/herd with one model input
// damaged: each ends with a message that names the file or the option, a
// non-zero exit and no OK_KREL.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "binary_run.h"
#include "engine/run_results.h"
#include "inputs/pedigree.h"

namespace krel {
namespace {

using testing::contains;
using testing::run_binary;
using testing::scratch_dir;

void copy_herd(const scratch_dir& dir) {
    const std::filesystem::path herd = std::filesystem::path(KREL_SOURCE_DIR) / "examples" / "herd";
    for (const auto& e : std::filesystem::directory_iterator(herd))
        if (e.path().extension() != ".inb")
            std::filesystem::copy_file(e.path(), std::filesystem::path(dir.path()) / e.path().filename());
}

// The first occurrence of `from` in the file becomes `to`.
void replace_in(const scratch_dir& dir, const std::string& file, const std::string& from, const std::string& to) {
    std::string text = dir.read(file);
    const auto at = text.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    dir.write(file, text.replace(at, from.size(), to));
}

const std::vector<std::string> herd_model = {"--ped", "pedigree.txt", "--gen", "genotypes.bed", "--freq", "compute",
                                             "--h2", "heritability.txt", "--gvcv", "genetic_vcv.txt"};

struct bad_run {
    std::vector<std::string> args;  // in front of the model's files
    std::function<void(const scratch_dir&)> damage;
    std::string message;
};

TEST(bad_model_runs, StopWithTheFileOrOptionNamedAndNoMarker) {
    const auto none = [](const scratch_dir&) {};
    const std::vector<std::string> pev = {"--effect", "1", "--pev", "pev.txt"};
    const std::string third_pev = "1 1 3 3 16.057604";
    auto pev_value = [&](const std::string& v) {
        return [&, v](const scratch_dir& d) { replace_in(d, "pev.txt", third_pev, "1 1 3 3 " + v); };
    };
    const std::vector<bad_run> cases = {
        {{"--effect", "-1", "--pev", "pev.txt"}, none, "--effect must give the number of the animal effect"},
        {{"--effect", "0", "--pev", "pev.txt"}, none, "--effect must give the number of the animal effect"},
        {{"--effect", "10000", "--pev", "pev.txt"}, none, "from 1 to 9999, not 10000"},
        {{"--effect", "2", "--pev", "pev.txt"}, none, "The PEV file pev.txt holds no record of the effect 2"},
        {{"--effect", "1", "--pev", "pev.txt", "--beta", "1.5"}, none, "--beta must lie between 0 and 1"},
        {{"--effect", "1", "--pev", "pev.txt", "--beta", "-0.1"}, none, "--beta must lie between 0 and 1"},
        {pev, [](const scratch_dir& d) { d.write("heritability.txt", "0\n"); },
         "The heritability file heritability.txt gives the heritability 0 at line 1"},
        {pev, [](const scratch_dir& d) { d.write("heritability.txt", "1.2\n"); }, "heritability file heritability.txt"},
        {pev, [](const scratch_dir& d) { d.write("heritability.txt", ""); },
         "The heritability file heritability.txt holds no heritability"},
        {pev, [](const scratch_dir& d) { d.write("heritability.txt", "x0.3\n"); },
         "The heritability file heritability.txt holds no heritability"},
        {pev, [](const scratch_dir& d) { d.write("genetic_vcv.txt", "-25\n"); },
         "genetic_vcv.txt is not positive definite"},
        {pev, pev_value("nan"), "pev.txt holds a value that is not a finite number at line 3"},
        {pev, pev_value("-Inf"), "pev.txt holds a value that is not a finite number at line 3"},
        {pev, pev_value("400"), "The PEV file pev.txt gives level 3 (trait 1) the PEV 400.000"},
        {pev, pev_value("0"), "The PEV file pev.txt gives level 3 (trait 1) no PEV above 0"},
        {{"--effect", "1", "--mrel", "rel.txt"},
         [](const scratch_dir& d) { replace_in(d, "rel.txt", "3 3 1 0.357696", "3 3 1 1.0"); },
         "The REL file rel.txt gives level 3 (trait 1) the reliability 1.00000"},
        {{"--effect", "1", "--pev", "pev.txt", "--inbfile", "inb.txt"},
         [](const scratch_dir& d) { d.write("inb.txt", "10 -0.5\n"); },
         "The file inb.txt gives level 10 the inbreeding coefficient -0.5 at line 1"},
        {pev,
         [](const scratch_dir& d) {
             testing::log_capture quiet;
             pedigree_type p;
             p.readpedigree_nomax((d / "pedigree.txt").string());
             std::string cache = "# " + std::to_string(p.checkval()) + "\n";
             for (std::int32_t i = 1; i <= p.nlength(); ++i) cache += std::to_string(i) + (i == 7 ? " nan\n" : " 0\n");
             d.write("pedigree.txt.inb", cache);
         },
         "The file pedigree.txt.inb gives level 7 the inbreeding coefficient nan at line 8"},
        {pev, [](const scratch_dir& d) { d.write("pedigree.txt", ""); },
         "The pedigree file pedigree.txt holds no animal"},
        // A parser error is no finished run either.
        {{"--effect", "1", "--pev", "pev.txt", "--mrel", "rel.txt"}, none, "--pev excludes --mrel"},
    };
    for (const auto& c : cases) {
        scratch_dir dir;
        copy_herd(dir);
        c.damage(dir);
        dir.write("OK_KREL", "");  // left by an earlier run
        const auto r = run_binary(dir, testing::followed_by(testing::followed_by({"krel", "--noscreen"}, c.args),
                                                            herd_model));
        const std::string log = testing::flat(r.log);
        EXPECT_NE(r.status, 0) << c.message;
        EXPECT_FALSE(dir.exists("OK_KREL")) << c.message;
        EXPECT_TRUE(contains(log, c.message)) << c.message << "\n" << log;
        EXPECT_FALSE(contains(log, "pev.txt holds a value for level")) << log;
    }
}

TEST(bad_model_runs, ByteOrderMarksBeforeTheModelFilesAreSkipped) {
    scratch_dir dir;
    copy_herd(dir);
    for (const std::string file : {"pedigree.txt", "heritability.txt", "genetic_vcv.txt", "pev.txt"})
        dir.write(file, "\xEF\xBB\xBF" + dir.read(file));
    const auto r = run_binary(
        dir, testing::followed_by({"krel", "--noscreen", "--only-geno", "--effect", "1", "--pev", "pev.txt"}, herd_model));
    ASSERT_EQ(r.status, 0) << r.log;
    EXPECT_TRUE(dir.exists("OK_KREL"));
    EXPECT_FALSE(contains(r.log, "WARN")) << r.log;
    EXPECT_TRUE(contains(testing::flat(r.log), "Number of animals : 3000")) << r.log;
    const std::string results = dir.read("qd_sskreliabilities_geno.dat");
    ASSERT_FALSE(results.empty());
    EXPECT_FALSE(contains(results, "nan") || contains(results, "NaN")) << results.substr(0, 400);
}

}  // namespace
}  // namespace krel
