// The report of a run: summary statistics against the result files, the
// run summary against the files and the log, and the plots as images.
#include <cairo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "app/binary_run.h"
#include "engine/run_results.h"
#include "report/plots.h"
#include "report/snp_statistics.h"
#include "test_support.h"

namespace krel {
namespace {

using testing::contains;
using testing::run_binary;
using testing::scratch_dir;

std::vector<std::vector<std::string>> tsv_rows(const std::string& text) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> row;
        std::istringstream cells(line);
        for (std::string c; std::getline(cells, c, '\t');) row.push_back(c);
        rows.push_back(row);
    }
    return rows;
}

// The JSON file read by Python's parser and flattened to "path=value" lines,
// so that a malformed file fails here and members are easy to look up.
std::map<std::string, std::string> json_members(const scratch_dir& dir, const std::string& file) {
    const std::string script =
        "import json,sys\n"
        "def walk(p,v):\n"
        "    if isinstance(v,dict):\n"
        "        [walk(p+'.'+k,x) for k,x in v.items()]\n"
        "    elif isinstance(v,list):\n"
        "        print(p+'.length='+str(len(v)))\n"
        "        [walk(p+'['+str(i)+']',x) for i,x in enumerate(v)]\n"
        "    else:\n"
        "        print(p+'='+json.dumps(v))\n"
        "walk('',json.load(open(sys.argv[1])))\n";
    dir.write("flatten.py", script);
    const int status = std::system(("cd " + testing::shell_quote(dir.path().string()) +
                                    " && python3 flatten.py " + file + " > flat.txt 2> flat_err.txt")
                                       .c_str());
    EXPECT_EQ(status, 0) << dir.read("flat_err.txt");
    std::map<std::string, std::string> out;
    std::istringstream in(dir.read("flat.txt"));
    for (std::string line; std::getline(in, line);) {
        const auto eq = line.find('=');
        out[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return out;
}

std::size_t line_count(const std::string& text) {
    std::size_t n = 0;
    for (char c : text) n += c == '\n';
    return n;
}

TEST(run_report, summary_statistics_summary_and_plots_of_a_krel_run) {
    scratch_dir dir;
    testing::generate(dir, {"--animals", "700", "--genotyped", "150", "--snps", "400", "--chromosomes", "3",
                            "--monomorphic", "0.05"});
    const auto r = run_binary(dir, {"--noscreen", "krel", "--ped", "pedigree.txt", "--effect", "1", "--gen",
                                    "genotypes.bed", "--freq", "compute", "--rvcv", "residual_vcv.txt", "--gvcv",
                                    "genetic_vcv.txt", "--pev", "pev.txt", "--gwas", "snp_solutions.txt", "2",
                                    "--plots"});
    ASSERT_EQ(r.status, 0) << r.log;

    // Summary statistics: fixed header, one row a SNP in .bim order, the
    // statistics those of the qd_ files, NA exactly on the monomorphic SNPs.
    const auto rows = tsv_rows(dir.read("krel_sumstats.tsv"));
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(rows[0], (std::vector<std::string>{"#CHROM", "POS", "ID", "A1", "OMITTED", "A1_FREQ", "BETA", "SE",
                                                 "Z_STAT", "P", "LOG10_P"}));
    const auto bim = tsv_rows(dir.read("genotypes.bim"));
    const auto z = testing::results(dir, "qd_zscores_approx.dat");
    const auto p = testing::results(dir, "qd_pvalues_approx.dat");
    const auto varhat = testing::results(dir, "qd_varhatsnpeffects_approx.dat");
    ASSERT_EQ(rows.size(), z.size() + 1);
    ASSERT_EQ(z.size(), 400u);
    std::int64_t na = 0;
    for (std::size_t j = 1; j < rows.size(); ++j) {
        const auto& row = rows[j];
        ASSERT_EQ(row.size(), 11u) << j;
        std::string record;
        for (const auto& cell : bim[j - 1]) record += cell + ' ';
        std::istringstream b(record);
        std::string chrom, id, cm, pos, a1, a2;
        b >> chrom >> id >> cm >> pos >> a1 >> a2;
        // The genotype codes count the second allele of the .bim.
        EXPECT_EQ((std::vector<std::string>{row[0], row[1], row[2], row[3], row[4]}),
                  (std::vector<std::string>{chrom, pos, id, a2, a1}))
            << j;
        const long snp = static_cast<long>(j);
        if (row[9] == "NA") {
            ++na;
            for (int c = 6; c <= 10; ++c) EXPECT_EQ(row[c], "NA") << j;
            EXPECT_TRUE(std::stod(row[5]) == 0.0 || std::stod(row[5]) == 1.0) << "varying SNP left out: " << j;
            continue;
        }
        EXPECT_DOUBLE_EQ(std::stod(row[8]), z.at(snp)[0]) << j;
        EXPECT_NEAR(std::pow(std::stod(row[7]), 2), varhat.at(snp)[0], 1e-12 * varhat.at(snp)[0]) << j;
        const double qd_p = p.at(snp)[0];
        if (qd_p > 1e-25) {
            EXPECT_NEAR(std::stod(row[9]), qd_p, 1e-12 + 1e-9 * qd_p) << j;
            EXPECT_NEAR(std::stod(row[10]), -std::log10(qd_p), 1e-8) << j;
        } else {
            // Below what the difference of the distribution function holds:
            // the tail itself gives the value.
            EXPECT_GT(std::stod(row[10]), 24.0) << j;
        }
    }
    EXPECT_GT(na, 0);
    EXPECT_TRUE(contains(testing::flat(r.log), "NA (trait 1): " + std::to_string(na))) << r.log;
    EXPECT_TRUE(contains(r.log, "Genomic inflation factor lambda (trait 1): ")) << r.log;

    // Run summary: it parses, and its sizes and counts are those of the files.
    auto json = json_members(dir, "krel_summary.json");
    const std::size_t animals = line_count(dir.read("qd_sskreliabilities.dat"));
    EXPECT_EQ(json[".exit_status"], "0");
    EXPECT_EQ(json[".error"], "null");
    EXPECT_EQ(json[".command"], "\"krel\"");
    EXPECT_EQ(json[".inputs.animals"], std::to_string(animals));
    EXPECT_EQ(json[".inputs.genotyped"], "150");
    EXPECT_EQ(json[".inputs.snps"], "400");
    EXPECT_EQ(json[".inputs.traits"], "1");
    EXPECT_EQ(json[".snp_tests.snps_without_information"], std::to_string(na));
    EXPECT_EQ(json[".snp_tests.files[0]"], "\"krel_sumstats.tsv\"");
    EXPECT_EQ(std::stoul(json[".reliabilities[0].genotyped.count"]) +
                  std::stoul(json[".reliabilities[0].non_genotyped.count"]),
              animals);
    EXPECT_EQ(json[".road.length"], json[".steps.length"]);
    EXPECT_EQ(json[".road[0]"], "\"init_krel\"");
    EXPECT_EQ(json[".options.plots"], "\"T\"");
    const auto rel = testing::results(dir, "qd_sskreliabilities.dat");
    double lo = 2.0;
    for (const auto& [level, v] : rel) lo = std::min(lo, v[0]);
    EXPECT_NEAR(std::min(std::stod(json[".reliabilities[0].genotyped.min"]),
                         std::stod(json[".reliabilities[0].non_genotyped.min"])),
                lo, 1e-5);
    std::string files;
    for (std::size_t k = 0; k < std::stoul(json[".result_files.length"]); ++k)
        files += json[".result_files[" + std::to_string(k) + "]"];
    for (const char* name : {"qd_pvalues_approx.dat", "qd_sskreliabilities.dat", "krel_sumstats.tsv",
                             "krel_manhattan.png", "krel_reliability_scatter.pdf"})
        EXPECT_TRUE(contains(files, name)) << name << " not in " << files;

    // Plots: PNG of the stated size that show something, and PDF beside them.
    const std::vector<std::tuple<std::string, int, int>> plots = {
        {"krel_manhattan", manhattan_width, manhattan_height},
        {"krel_qq", qq_width, qq_height},
        {"krel_reliabilities", distribution_width, distribution_height},
        {"krel_reliability_scatter", scatter_width, scatter_height}};
    for (const auto& [stem, width, height] : plots) {
        cairo_surface_t* png = cairo_image_surface_create_from_png((dir / (stem + ".png")).c_str());
        ASSERT_EQ(cairo_surface_status(png), CAIRO_STATUS_SUCCESS) << stem;
        EXPECT_EQ(cairo_image_surface_get_width(png), width) << stem;
        EXPECT_EQ(cairo_image_surface_get_height(png), height) << stem;
        const unsigned char* data = cairo_image_surface_get_data(png);
        const int stride = cairo_image_surface_get_stride(png);
        std::map<std::uint32_t, std::int64_t> colours;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                ++colours[*reinterpret_cast<const std::uint32_t*>(data + y * stride + 4 * x) & 0xffffffu];
        // Background, ink and the points or curves.
        EXPECT_GE(colours.size(), 3u) << stem;
        cairo_surface_destroy(png);
        EXPECT_EQ(dir.read(stem + ".pdf").substr(0, 5), "%PDF-") << stem;
    }
}

TEST(run_report, a_stopped_run_leaves_its_summary_with_the_error) {
    scratch_dir dir;
    // A file name that needs escaping in JSON.
    const std::string name = "no \"such\"\\file\tname";
    const auto r = run_binary(dir, {"--noscreen", "gwas", "--ped", name, "--gen", "g.bed", "--freq", "compute",
                                    "--effect", "1", "--gwas", "sol.txt", "2", "--h2", "h2.txt"});
    ASSERT_NE(r.status, 0);
    auto json = json_members(dir, "krel_summary.json");
    EXPECT_EQ(json[".exit_status"], std::to_string(r.status));
    EXPECT_EQ(json[".command"], "\"gwas\"");
    EXPECT_EQ(json[".options.ped"], "\"no \\\"such\\\"\\\\file\\tname\"");
    EXPECT_EQ(json[".road[0]"], "\"init_krel\"");
    EXPECT_EQ(json[".steps.length"], "1");
    EXPECT_EQ(json[".inputs.animals"], "null");
    EXPECT_NE(json[".error"], "null");
    EXPECT_NE(json[".error"], "\"\"");
    EXPECT_FALSE(dir.exists("krel_sumstats.tsv"));
}

TEST(snp_statistics, minus_log10_p_is_exact_where_p_leaves_the_range_of_a_double) {
    // -log10 of the two-sided normal p at |z| = u, to 25 digits.
    const std::vector<std::pair<double, double>> cases = {{5.0, 6.241615676726673301},
                                                          {37.5, 307.0357070789806565},
                                                          {150.0, 4888.087091908986598},
                                                          {200.0, 8688.288738855899157},
                                                          {1000.0, 217150.3390119987223}};
    for (const auto& [u, expected] : cases) {
        EXPECT_NEAR(minus_log10_p(u, 1.0), expected, 1e-13 * expected) << u;
        EXPECT_NEAR(minus_log10_p(-2 * u, 4.0), expected, 1e-13 * expected) << u;
    }
    // Where the two computations meet, the value goes on smoothly.
    double last = 0.0;
    for (double u = 146.0; u < 152.0; u += 0.01) {
        const double v = minus_log10_p(u, 1.0);
        EXPECT_GT(v, last) << u;
        last = v;
    }
    EXPECT_EQ(p_text(0.25, 0.6020599913279624), "0.25");
    EXPECT_EQ(p_text(0.0, 1000.5), "3.16228e-1001");
    EXPECT_EQ(p_text(0.0, 4888.087091908986598), "8.18292e-4889");

    // No information: every statistic NA, whatever b and the variance are.
    const auto tests = snp_tests({0.5, 0.5, 0.5, 0.5}, {0.04, 0.0, -1e-9, 0.04}, {true, true, true, false},
                                 {0.3, 0.3, 0.3, 0.0});
    EXPECT_TRUE(tests[0].informative);
    EXPECT_DOUBLE_EQ(tests[0].z, 2.5);
    for (int j = 1; j < 4; ++j) {
        EXPECT_FALSE(tests[j].informative) << j;
        EXPECT_TRUE(std::isnan(tests[j].p) && std::isnan(tests[j].log10_p) && std::isnan(tests[j].beta)) << j;
    }
}

}  // namespace
}  // namespace krel
