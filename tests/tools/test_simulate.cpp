// The data generator: invariants of the files it writes, read back here by
// the rules krel's readers follow, and its reproducibility.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "simulate/sim_genotypes.h"
#include "test_support.h"

namespace fs = std::filesystem;
using krel::testing::read_text;
using krel::testing::run_program;
using krel::testing::scratch_dir;

namespace {

std::vector<std::vector<std::string>> records(const fs::path& file) {
    std::vector<std::vector<std::string>> out;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream s(line);
        std::vector<std::string> words;
        for (std::string w; s >> w;) words.push_back(w);
        out.push_back(words);
    }
    return out;
}

long long to_int(const std::string& s) { return std::stoll(s); }
double to_real(const std::string& s) { return std::stod(s); }

// Genotypes of a SNP-major .bed as allele counts, -1 for missing: [snp][individual].
struct bed_data {
    std::vector<std::vector<int>> g;
    bool magic_ok = false;
    bool padding_zero = true;
    std::uintmax_t size = 0;
};

bed_data read_bed(const fs::path& file, std::size_t nsnp, std::size_t nind) {
    bed_data b;
    const std::string bytes = read_text(file);
    b.size = bytes.size();
    b.magic_ok = bytes.size() >= 3 && bytes.substr(0, 3) == std::string("\x6C\x1B\x01");
    const std::size_t nbytes = (nind + 3) / 4;
    if (!b.magic_ok || bytes.size() != 3 + nsnp * nbytes) return b;
    b.g.assign(nsnp, std::vector<int>(nind));
    for (std::size_t j = 0; j < nsnp; ++j)
        for (std::size_t k = 0; k < nbytes * 4; ++k) {
            const int code = (static_cast<unsigned char>(bytes[3 + j * nbytes + k / 4]) >> (2 * (k % 4))) & 3;
            if (k >= nind) {
                b.padding_zero = b.padding_zero && code == 0;
                continue;
            }
            b.g[j][k] = code == 1 ? -1 : (code == 0 ? 0 : code - 1);
        }
    return b;
}

const std::vector<std::string> small_args = {
    "--seed", "7", "--animals", "1500", "--genotyped", "150", "--snps", "701", "--chromosomes", "3",
    "--traits", "2", "--groups", "4", "--metafounders", "--missing", "0.02", "--text"};

class generated_set : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<scratch_dir>();
        std::vector<std::string> args = small_args;
        args.insert(args.begin(), {"--out", "data"});
        const auto r = run_program(*dir_, KREL_SIMULATE_BINARY, args);
        ASSERT_EQ(r.status, 0) << r.err;
    }
    static void TearDownTestSuite() { dir_.reset(); }
    static fs::path file(const std::string& name) { return dir_->path() / "data" / name; }

    static constexpr long long n = 1500, groups = 4, ngeno = 150, nsnp = 701;
    static std::unique_ptr<scratch_dir> dir_;
};
std::unique_ptr<scratch_dir> generated_set::dir_;

TEST_F(generated_set, PedigreeHasOverlappingGenerationsGroupsAndShuffledLevels) {
    std::map<long long, std::vector<long long>> ped;  // level -> sire, dam, birth year
    long long maxid = 0, maxall = 0;
    for (const auto& r : records(file("pedigree.txt"))) {
        ASSERT_EQ(r.size(), 4u);
        const long long id = to_int(r[0]), s = to_int(r[1]), d = to_int(r[2]);
        ASSERT_TRUE(id >= 1 && id <= n) << id;
        ASSERT_TRUE(s >= 0 && s <= n + groups && d >= 0 && d <= n + groups);
        ASSERT_TRUE(ped.emplace(id, std::vector<long long>{s, d, to_int(r[3])}).second) << "twice: " << id;
        maxid = std::max(maxid, id);
        maxall = std::max({maxall, id, s, d});
    }
    // Readers take the animals from the highest identity and the groups from
    // the excess of the highest parent.
    EXPECT_EQ(maxid, n);
    EXPECT_EQ(maxall - maxid, groups);

    std::set<long long> parents;
    int lower_than_parent = 0, unknown_sire = 0;
    for (const auto& [id, r] : ped) {
        for (int side = 0; side < 2; ++side) {
            const long long p = r[side];
            if (p == 0 || p > n) continue;
            parents.insert(p);
            if (p > id) ++lower_than_parent;
            if (auto it = ped.find(p); it != ped.end()) {
                EXPECT_LT(it->second[2], r[2]) << id << " and parent " << p;
            }
        }
        unknown_sire += r[0] < 1 || r[0] > n;
    }
    EXPECT_GT(lower_than_parent, 0);
    EXPECT_GT(unknown_sire, 0);
    // Animals that occur only as parents; every level is used one way or the other.
    int parent_only = 0;
    for (long long id = 1; id <= n; ++id) {
        if (!ped.count(id)) {
            EXPECT_TRUE(parents.count(id)) << "level without a use: " << id;
            ++parent_only;
        }
    }
    EXPECT_GT(parent_only, 0);

    for (const auto& r : records(file("metafounders.txt"))) {
        ASSERT_EQ(r.size(), 3u);
        EXPECT_TRUE(to_int(r[0]) > n && to_int(r[0]) <= n + groups && to_int(r[1]) > n && to_int(r[1]) <= to_int(r[0]));
        EXPECT_GT(to_real(r[2]), 0.0);
    }
}

TEST_F(generated_set, PlinkFilesetIsSnpMajorAndMendelian) {
    const auto fam = records(file("genotypes.fam"));
    ASSERT_EQ(fam.size(), static_cast<std::size_t>(ngeno));
    std::map<long long, std::size_t> row;
    for (std::size_t k = 0; k < fam.size(); ++k) {
        const long long id = to_int(fam[k][0]);
        EXPECT_TRUE(id >= 1 && id <= n);
        EXPECT_TRUE(row.emplace(id, k).second);
    }
    const auto bim = records(file("genotypes.bim"));
    ASSERT_EQ(bim.size(), static_cast<std::size_t>(nsnp));
    for (const auto& r : bim) EXPECT_NO_THROW(to_int(r[0]));
    const auto bed = read_bed(file("genotypes.bed"), nsnp, ngeno);
    ASSERT_TRUE(bed.magic_ok);
    ASSERT_EQ(bed.size, 3u + nsnp * ((ngeno + 3) / 4));
    EXPECT_TRUE(bed.padding_zero);

    long long missing = 0, monomorphic = 0;
    for (const auto& snp : bed.g) {
        std::set<int> seen;
        for (int x : snp) x < 0 ? ++missing : (seen.insert(x), 0);
        EXPECT_FALSE(seen.empty()) << "a SNP with all genotypes missing";
        monomorphic += seen.size() == 1;
    }
    EXPECT_NEAR(static_cast<double>(missing) / (nsnp * ngeno), 0.02, 0.005);
    EXPECT_GT(monomorphic, 0);

    // Genotyped parent and offspring never carry opposite homozygotes.
    int pairs = 0;
    for (const auto& r : fam)
        for (int side = 2; side <= 3; ++side)
            if (auto it = row.find(to_int(r[side])); it != row.end()) {
                ++pairs;
                for (const auto& snp : bed.g) {
                    const int a = snp[row[to_int(r[0])]], b = snp[it->second];
                    EXPECT_FALSE(a >= 0 && b >= 0 && std::abs(a - b) == 2) << r[0] << " and " << r[side];
                }
            }
    EXPECT_GT(pairs, 5);
}

TEST_F(generated_set, FrequenciesAgreeWithTheBed) {
    // The text layouts are compared with the .bed through krel's own readers.
    const auto bed = read_bed(file("genotypes.bed"), nsnp, ngeno);
    const auto freq = records(file("frequencies.txt"));
    ASSERT_EQ(freq.size(), static_cast<std::size_t>(nsnp));
    for (std::size_t j = 0; j < freq.size(); ++j) {
        ASSERT_EQ(freq[j].size(), 2u);
        EXPECT_EQ(to_int(freq[j][0]), static_cast<long long>(j + 1));
        double alleles = 0, seen = 0;
        for (int x : bed.g[j])
            if (x >= 0) alleles += x, seen += 2;
        const double p = to_real(freq[j][1]);
        EXPECT_TRUE(p >= 0.0 && p <= 1.0);
        EXPECT_NEAR(p, alleles / seen, 1e-14) << "SNP " << j + 1;
    }
}

TEST_F(generated_set, ReliabilitiesBehaveLikeThoseOfAnEvaluation) {
    const auto gv = records(file("genetic_vcv.txt"));
    const double g[2] = {to_real(gv[0][0]), to_real(gv[1][1])};
    std::map<long long, std::vector<double>> rel;
    std::map<long long, long long> own;
    for (const auto& r : records(file("rel.txt"))) {
        ASSERT_EQ(r.size(), 5u);  // level, two further columns, one value per trait
        rel[to_int(r[0])] = {to_real(r[3]), to_real(r[4])};
        own[to_int(r[0])] = to_int(r[2]);
        for (double x : rel[to_int(r[0])]) EXPECT_TRUE(x >= 0.0 && x < 1.0) << x;
    }
    ASSERT_EQ(rel.size(), static_cast<std::size_t>(n));
    std::map<long long, int> per_trait;
    for (const auto& r : records(file("pev.txt"))) {
        ASSERT_EQ(r.size(), 5u);
        const auto t = to_int(r[0]) - 1;
        if (to_int(r[1]) != 1) continue;
        ++per_trait[t];
        EXPECT_NEAR(to_real(r[4]), g[t] * (1.0 - rel.at(to_int(r[2]))[t]), 1e-5 * g[t]);
    }
    EXPECT_EQ(per_trait[0], n);
    EXPECT_EQ(per_trait[1], n);

    // Young animals without records or progeny get a quarter of their
    // parents' reliabilities; some animals have none at all.
    std::map<long long, std::vector<long long>> ped;
    std::set<long long> parents;
    for (const auto& r : records(file("pedigree.txt"))) {
        ped[to_int(r[0])] = {to_int(r[1]), to_int(r[2])};
        parents.insert({to_int(r[1]), to_int(r[2])});
    }
    int zero = 0, young_pa = 0;
    for (const auto& [id, x] : rel) {
        zero += x[0] == 0.0;
        const auto it = ped.find(id);
        if (own[id] != 0 || parents.count(id) || it == ped.end()) continue;
        double pa = 0;
        for (long long p : it->second)
            if (p >= 1 && p <= n) pa += rel[p][0];
        if (pa > 0) {
            ++young_pa;
            EXPECT_NEAR(x[0], pa / 4, 1e-6) << id;
        }
    }
    EXPECT_GT(zero, 0);
    EXPECT_GT(young_pa, 0);
}

TEST_F(generated_set, HeritabilityAgreesWithTheVariances) {
    const auto h2 = records(file("heritability.txt"));
    ASSERT_EQ(h2.size(), 2u);
    const auto gv = records(file("genetic_vcv.txt"));
    const auto rv = records(file("residual_vcv.txt"));
    ASSERT_EQ(gv.size(), 2u);
    ASSERT_EQ(rv.size(), 2u);
    ASSERT_EQ(rv[1].size(), 4u);  // class, row, the row's lower triangle
    for (int t = 0; t < 2; ++t) {
        const double g = to_real(gv[t][t]), r = to_real(rv[t][2 + t]);
        EXPECT_NEAR(to_real(h2[t][0]), g / (g + r), 1e-12);
    }
}

TEST(simulate, SameSeedGivesSameFilesWhateverTheThreads) {
    scratch_dir dir;
    std::vector<std::string> args = {"--animals", "900", "--genotyped", "70", "--snps", "300", "--text",
                                     "--groups", "2"};
    auto with = [&](const char* out, const char* seed) {
        auto a = args;
        a.insert(a.end(), {"--out", out, "--seed", seed});
        return a;
    };
    ASSERT_EQ(run_program(dir, KREL_SIMULATE_BINARY, with("a", "3"), "OMP_NUM_THREADS=2").status, 0);
    ASSERT_EQ(run_program(dir, KREL_SIMULATE_BINARY, with("b", "3"), "OMP_NUM_THREADS=1").status, 0);
    ASSERT_EQ(run_program(dir, KREL_SIMULATE_BINARY, with("c", "4"), "").status, 0);
    int files = 0;
    for (const auto& e : fs::directory_iterator(dir.path() / "a")) {
        const auto name = e.path().filename().string();
        EXPECT_EQ(read_text(e.path()), read_text(dir / ("b/" + name))) << name;
        ++files;
    }
    EXPECT_GE(files, 15);
    EXPECT_NE(dir.read("a/pedigree.txt"), dir.read("c/pedigree.txt"));
    EXPECT_NE(dir.read("a/genotypes.bed"), dir.read("c/genotypes.bed"));
}

TEST(simulate, BadArgumentsGiveAMessageAndAFailure) {
    scratch_dir dir;
    dir.write("plain-file", "x");
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--out", "x", "--animals", "-5"}, "--animals"},
        {{"--out", "x", "--animals", "10", "--genotyped", "11"}, "--genotyped"},
        {{"--out", "x", "--snps", "0"}, "--snps"},
        {{"--out", "x", "--traits", "3"}, "--traits"},
        {{"--out", "x", "--missing", "1.5"}, "--missing"},
        {{"--out", "x", "--metafounders"}, "--metafounders"},
        {{"--out", "plain-file/sub"}, "plain-file"},
        {{"--animals", "10"}, "--out"},
    };
    for (const auto& [args, word] : cases) {
        const auto r = run_program(dir, KREL_SIMULATE_BINARY, args);
        EXPECT_NE(r.status, 0) << args[1] << ' ' << args.back();
        EXPECT_NE(r.err.find(word), std::string::npos) << r.err;
    }
    EXPECT_FALSE(dir.exists("x"));
}

TEST(simulate, MeiosisMasksSwitchAtEachCrossover) {
    std::vector<std::uint64_t> mask(3);
    krelsim::meiosis_masks(0, {}, 0, 3, mask.data());
    EXPECT_EQ(mask, (std::vector<std::uint64_t>{0, 0, 0}));
    // From SNP 70 on the second haplotype, back to the first at SNP 128,
    // and at 129 again.
    krelsim::meiosis_masks(0, {70, 128, 129}, 0, 3, mask.data());
    EXPECT_EQ(mask[0], 0u);
    EXPECT_EQ(mask[1], ~0ull << 6);
    EXPECT_EQ(mask[2], ~0ull << 1);
    // A window that starts behind some crossovers.
    mask.assign(1, 0);
    krelsim::meiosis_masks(1, {5, 64, 100}, 1, 2, mask.data());
    EXPECT_EQ(mask[0], ~(~0ull << 36));
}

// The shipped example is exactly what its manifest's generator line makes.
TEST(simulate, ShippedExampleIsReproducible) {
    const fs::path example = fs::path(KREL_SOURCE_DIR) / "examples" / "herd";
    const auto manifest = records(example / "manifest.txt");
    ASSERT_GE(manifest.size(), 2u);
    ASSERT_EQ(manifest[1][0], "generator:");
    std::vector<std::string> args(manifest[1].begin() + 2, manifest[1].end());
    args.insert(args.end(), {"--out", "again"});
    scratch_dir dir;
    ASSERT_EQ(run_program(dir, KREL_SIMULATE_BINARY, args).status, 0);
    int files = 0;
    for (const auto& e : fs::directory_iterator(dir.path() / "again")) {
        const auto name = e.path().filename().string();
        EXPECT_EQ(read_text(e.path()), read_text(example / name)) << name;
        ++files;
    }
    EXPECT_GE(files, 15);
}

}  // namespace
