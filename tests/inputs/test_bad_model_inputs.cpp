// Damaged model files: values no model can use stop the run with the file,
// the record and the value; reading that ends early says where; byte-order
// marks and old Mac line ends read as the plain file does.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "inputs/model_data.h"
#include "inputs/pedigree.h"
#include "inputs/solution_files.h"
#include "inputs/variance_files.h"
#include "test_support.h"
#include "util/error_stop.h"

namespace krel {
namespace {

using testing::contains;
using testing::log_capture;
using testing::scratch_dir;

const std::string bom = "\xEF\xBB\xBF";

// The pedigree of the model tests: 4 animals under one group (level 5).
const std::string small_pedigree = "1 5 5\n2 5 5\n3 1 2\n4 1 2\n";

struct model_files {
    std::string pedigree = small_pedigree, h2 = "0.4\n", pev, rel;
};

model_files with_pev(const std::string& pev, const std::string& pedigree = small_pedigree) {
    model_files f;
    f.pev = pev;
    f.pedigree = pedigree;
    return f;
}

model_files with_rel(const std::string& rel) {
    model_files f;
    f.rel = rel;
    return f;
}

// Reads the model of `files` and returns the log; `stops` says whether the
// read must end with an error.
std::string read_model(const scratch_dir& dir, const model_files& files, bool stops, std::int32_t effect = 1) {
    log_capture log;
    dir.write("ped.txt", files.pedigree);
    dir.write("h2.txt", files.h2);
    krel_abstract m;
    m.pedfile = (dir / "ped.txt").string();
    m.inbfile = "none";
    m.h2file = (dir / "h2.txt").string();
    m.effect = effect;
    if (!files.pev.empty()) {
        dir.write("pev.txt", files.pev);
        m.pevfile = (dir / "pev.txt").string();
    }
    if (!files.rel.empty()) {
        dir.write("rel.txt", files.rel);
        m.relfile = (dir / "rel.txt").string();
    }
    if (stops)
        EXPECT_THROW(m.read_model_files(), error_stop) << log.text();
    else
        EXPECT_NO_THROW(m.read_model_files()) << log.text();
    return log.text();
}

TEST(bad_model_inputs, HeritabilityOutsideItsDomainOrMissing) {
    scratch_dir dir;
    const std::string file = (dir / "h2.txt").string();
    for (const std::string text : {"", "\n\n", "abc\n", "0\n", "1\n", "1.5\n", "-0.2\n", "nan\n", "inf\n"}) {
        log_capture log;
        dir.write("h2.txt", text);
        std::int32_t n = 0;
        std::vector<double> h2;
        EXPECT_THROW(readh2(file, n, h2), error_stop) << text;
        EXPECT_TRUE(contains(log.text(), "heritability file " + file)) << text << log.text();
    }
    // A byte-order mark is skipped; a damaged record in the middle ends the
    // reading with a warning that shows the line.
    log_capture log;
    dir.write("h2.txt", bom + "0.3\n0.2x\n0.4\n");
    std::int32_t n = 0;
    std::vector<double> h2;
    readh2(file, n, h2);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(h2[1], 0.3);
    EXPECT_TRUE(contains(log.text(), file + " is read up to line 1 only: line 2")) << log.text();
    EXPECT_TRUE(contains(log.text(), "\"0.2x\"")) << log.text();
}

TEST(bad_model_inputs, VarianceMatricesMustBeFiniteAndPositiveDefinite) {
    scratch_dir dir;
    const std::string g = (dir / "g.txt").string(), r = (dir / "r.txt").string();
    struct genetic_case {
        std::string text;
        std::int32_t ntrait;
        std::string message;
    };
    for (const auto& c : std::vector<genetic_case>{{"nan\n", 1, "not a finite number at line 1"},
                                                   {"25\ninf 4\n", 2, "not a finite number at line 2"},
                                                   {"-25\n", 1, "not positive definite"},
                                                   {"0\n", 1, "not positive definite"},
                                                   {"1\n2 1\n", 2, "not positive definite"}}) {
        log_capture log;
        dir.write("g.txt", c.text);
        dmatrix m;
        EXPECT_THROW(readgf(g, 1, c.ntrait, m), error_stop) << c.text;
        EXPECT_TRUE(contains(log.text(), g)) << log.text();
        EXPECT_TRUE(contains(log.text(), c.message)) << log.text();
    }
    log_capture log;
    dir.write("r.txt", "1 1 nan\n");
    std::vector<dmatrix> rm;
    std::int32_t ntrait = 0;
    EXPECT_THROW(readrf(r, ntrait, rm), error_stop);
    EXPECT_TRUE(contains(log.text(), r + " holds a value that is not a finite number at line 1")) << log.text();

    // A byte-order mark before the first row.
    dir.write("g.txt", bom + "25\n");
    dmatrix m;
    readgf(g, 1, 1, m);
    EXPECT_EQ(m(1, 1), 25.0);
}

TEST(bad_model_inputs, SolutionFilesRefuseNonFiniteValuesAndWarnWhereReadingEnds) {
    scratch_dir dir;
    const std::string sol = (dir / "sol.txt").string();
    log_capture log;
    for (const std::string value : {"nan", "inf", "-Infinity"}) {
        log.clear();
        dir.write("sol.txt", "1 1 1 1 5\n1 1 2 2 " + value + "\n");
        dmatrix a(3, 1);
        EXPECT_THROW(readsol(sol, 1, a), error_stop);
        EXPECT_TRUE(contains(log.text(), sol + " holds a value that is not a finite number at line 2")) << log.text();
        log.clear();
        dir.write("sol.txt", "2 2 0 " + value + "\n");
        EXPECT_THROW(readsol_tarnelo(sol, a), error_stop);
        EXPECT_TRUE(contains(log.text(), "at line 1")) << log.text();
    }
    // Truncated line, a real where an integer stands, NUL bytes, a Mac line end.
    for (const std::string& bad : std::vector<std::string>{"1 1 2", "1 1 12.5 2 3", std::string("1 1 2 2 \0\0", 10)}) {
        log.clear();
        dir.write("sol.txt", bom + "1 1 1 1 5\n" + bad + "\n1 1 3 3 4\n");
        dmatrix a(3, 1);
        readsol(sol, 1, a);
        EXPECT_EQ(a(1, 1), 5.0);
        EXPECT_EQ(a(3, 1), 0.0);
        EXPECT_TRUE(contains(log.text(), sol + " is read up to line 1 only: line 2")) << log.text();
    }
    log.clear();
    dir.write("sol.txt", "1 1 1 1 5\r1 1 2 2 6\r1 1 3 3 7\r");
    dmatrix a(3, 1);
    readsol(sol, 1, a);
    EXPECT_EQ(a(3, 1), 7.0);
}

TEST(bad_model_inputs, PedigreeReadingThatEndsEarlyIsReported) {
    scratch_dir dir;
    const std::string file = (dir / "ped.txt").string();
    // Animals 1 to 6 below groups 7 and 8.
    const std::vector<std::string> lines = {"1 7 8", "2 7 8", "3 1 2", "4 1 2", "5 3 4", "6 3 4"};
    auto join = [&](const std::string& end) {
        std::string s;
        for (const auto& l : lines) s += l + end;
        return s;
    };
    // Byte-order mark, Windows and old Mac line ends: the whole pedigree.
    for (const std::string& text : {bom + join("\n"), join("\r\n"), join("\r"), bom + join("\r")}) {
        log_capture log;
        dir.write("ped.txt", text);
        pedigree_type p;
        p.readpedigree_nomax(file);
        EXPECT_EQ(p.nlength(), 8);
        EXPECT_EQ(p.nupg, 2);
        EXPECT_EQ(p.dam(6), 4);
        EXPECT_FALSE(contains(log.text(), "WARN")) << log.text();
    }
    // A damaged fourth line: three animals are read, the rest become groups
    // that no one descends from.
    for (const std::string& bad : std::vector<std::string>{"4 1", "4 1 2.5", "nan 1 2", std::string("4 1 \0", 5)}) {
        log_capture log;
        dir.write("ped.txt", "1 7 8\n2 7 8\n3 1 2\n" + bad + "\n5 3 4\n6 3 4\n");
        pedigree_type p;
        p.readpedigree_nomax(file);
        EXPECT_EQ(p.nreal(), 3);
        EXPECT_TRUE(contains(log.text(), file + " is read up to line 3 only: line 4 does not read")) << log.text();
        EXPECT_TRUE(contains(log.text(), "gives 5 genetic groups (levels 4 to 8), of which 3 are parents of no animal"))
            << log.text();
    }
    // With the sizes given, a record of a group level is named.
    log_capture log;
    dir.write("ped.txt", join("\n") + "7 0 0\n");
    pedigree_type p;
    p.readpedigree_max(file, 8, 2);
    EXPECT_TRUE(contains(log.text(), file + " gives 1 records to genetic groups (levels above 6)")) << log.text();
}

TEST(bad_model_inputs, InbreedingOutsideItsDomain) {
    scratch_dir dir;
    const std::string ped = (dir / "ped.txt").string(), inb = (dir / "inb.txt").string();
    dir.write("ped.txt", small_pedigree);
    for (const std::string value : {"-0.1", "1", "1.5", "nan", "inf"}) {
        pedigree_type p;
        p.readpedigree_nomax(ped);
        log_capture log;
        dir.write("inb.txt", bom + "1 0\n2 0\n3 " + value + "\n");
        EXPECT_THROW(p.readinbreeding(inb), error_stop) << value;
        EXPECT_TRUE(contains(log.text(), inb + " gives level 3 the inbreeding coefficient " + value + " at line 3"))
            << log.text();

        // The same in a cache whose hash is right.
        p.readpedigree_nomax(ped);
        dir.write("ped.txt.inb", "# " + std::to_string(p.checkval()) + "\n1 0\n2 0\n3 " + value + "\n4 0\n5 0\n");
        log.clear();
        EXPECT_THROW(p.computeinbreeding_ped(), error_stop) << value;
        EXPECT_TRUE(contains(log.text(), ped + ".inb gives level 3")) << log.text();
    }
    // A damaged line after the first ten ends the reading with a warning.
    pedigree_type p;
    p.readpedigree_nomax(ped);
    std::string text;
    for (int k = 0; k < 10; ++k) text += "1 0\n";
    dir.write("inb.txt", text + "2 0.x\n3 0.5\n");
    log_capture log;
    p.readinbreeding(inb);
    EXPECT_EQ(p.inb[3], 0.0);
    EXPECT_TRUE(contains(log.text(), inb + " is read up to line 10 only: line 11")) << log.text();
}

TEST(bad_model_inputs, PedigreeReliabilitiesOutsideTheirDomain) {
    scratch_dir dir;
    const auto pev_file = [](const std::string& third) {
        return "1 1 1 1 0.6\n1 1 2 2 0.6\n1 1 3 3 " + third + "\n1 1 4 4 0.5\n";
    };
    const auto rel_file = [](const std::string& third) {
        return "1 1 0 0\n2 2 0 0\n3 3 1 " + third + "\n4 4 1 0.2\n";
    };
    // g = h2 / (1 - h2) = 2/3 with h2 = 0.4: a PEV above it is no PEV.
    struct bad_case {
        model_files files;
        std::string message;
    };
    std::vector<bad_case> cases;
    for (const std::string v : {"0", "-0.1", "0.7", "1e300"})
        cases.push_back({with_pev(pev_file(v)), "file " + (dir / "pev.txt").string() + " gives level 3 (trait 1)"});
    for (const std::string v : {"1", "1.0000", "1.5", "-0.1"})
        cases.push_back({with_rel(rel_file(v)), "file " + (dir / "rel.txt").string() + " gives level 3 (trait 1)"});
    // An animal the PEV file leaves out.
    cases.push_back({with_pev("1 1 1 1 0.6\n1 1 2 2 0.6\n1 1 4 4 0.5\n"), "level 3 (trait 1) no PEV above 0"});
    // No record of the animal effect at all.
    cases.push_back({with_pev("1 2 1 1 0.6\n1 2 2 2 0.6\n"),
                     "PEV file " + (dir / "pev.txt").string() + " holds no record of the effect 1"});
    // An empty pedigree is the pedigree's fault, not the PEV file's.
    cases.push_back({with_pev(pev_file("0.5"), ""),
                     "The pedigree file " + (dir / "ped.txt").string() + " holds no animal"});
    cases.push_back({with_pev(pev_file("0.5"), "\xEF\xBB"), "holds no animal"});
    for (const auto& c : cases) {
        const std::string log = read_model(dir, c.files, true);
        EXPECT_TRUE(contains(log, c.message)) << c.message << "\n" << log;
    }
    // Good files, each behind a byte-order mark, read without complaint.
    model_files good = with_pev(bom + pev_file("0.66666"), bom + small_pedigree);
    good.h2 = bom + "0.4\n";
    const std::string log = read_model(dir, good, false);
    EXPECT_FALSE(contains(log, "WARN")) << log;
    read_model(dir, with_rel(bom + rel_file("0.999")), false);
}

}  // namespace
}  // namespace krel
