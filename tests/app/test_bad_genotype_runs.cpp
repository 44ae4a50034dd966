// Runs of the real binary on copies of examples/herd with one genotype-side
// file spoilt: each must stop with a message that names the file and the
// record, exit non-zero and leave no OK_KREL; a byte-order mark or a
// non-numeric chromosome code must be read through.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "binary_run.h"

namespace krel {
namespace {

using testing::contains;
using testing::scratch_dir;

const std::filesystem::path herd = std::filesystem::path(KREL_SOURCE_DIR) / "examples" / "herd";

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return text;
}

// Line k (1-based) of text changed by edit.
std::function<std::string(std::string)> on_line(std::size_t k, std::function<std::string(std::string)> edit) {
    return [k, edit](const std::string& text) {
        auto lines = lines_of(text);
        lines.at(k - 1) = edit(lines.at(k - 1));
        return joined(lines);
    };
}

// The item at position `item` (0-based, blank separated) of a line replaced.
std::function<std::string(std::string)> item_set(std::size_t item, std::string value) {
    return [item, value](const std::string& line) {
        std::istringstream in(line);
        std::vector<std::string> items;
        for (std::string w; in >> w;) items.push_back(w);
        items.at(item) = value;
        std::string out;
        for (const auto& w : items) out += (out.empty() ? "" : " ") + w;
        return out;
    };
}

// Character `pos` of the genotypes of a line without spaces replaced.
std::function<std::string(std::string)> digit_set(std::size_t pos, char value) {
    return [pos, value](std::string line) {
        line.at(line.find_first_not_of(' ', line.find(' ', line.find_first_not_of(' '))) + pos) = value;
        return line;
    };
}

// The identity of line `from` put on line k.
std::function<std::string(std::string)> identity_of_line(std::size_t from, std::size_t k) {
    return [from, k](const std::string& text) {
        auto lines = lines_of(text);
        std::istringstream first(lines.at(from - 1));
        std::string id;
        first >> id;
        lines.at(k - 1) = item_set(0, id)(lines.at(k - 1));
        return joined(lines);
    };
}

// The log wraps long messages: compared with runs of blanks and line ends as one blank.
std::string flat(const std::string& text) {
    std::string out;
    for (char c : text) {
        const bool blank = c == ' ' || c == '\n';
        if (!blank) out += c;
        else if (!out.empty() && out.back() != ' ') out += ' ';
    }
    return out;
}

void copy_herd(const scratch_dir& dir) {
    for (const auto& entry : std::filesystem::directory_iterator(herd))
        std::filesystem::copy_file(entry.path(), dir / entry.path().filename().string());
}

void edit_file(const scratch_dir& dir, const std::string& file,
               const std::function<std::string(std::string)>& edit) {
    dir.write(file, edit(dir.read(file)));
}

const std::vector<std::string> common = {"krel",     "--ped", "pedigree.txt", "--effect", "1",  "--gvcv",
                                         "genetic_vcv.txt", "--pev", "pev.txt",      "--freq",   "frequencies.txt"};

std::vector<std::string> plink_args(const std::vector<std::string>& extra = {}) {
    return testing::followed_by(testing::followed_by(common, {"--gen", "genotypes.bed", "--h2", "heritability.txt"}),
                                extra);
}

// The SNP variance is given: text genotypes do not derive it.
std::vector<std::string> text_args(const std::string& genotypes) {
    return testing::followed_by(common,
                                {"--gen", genotypes, "--rvcv", "residual_vcv.txt", "--svcv", "snp_vcv.txt"});
}

struct bad_run {
    std::string what;
    std::string file;
    std::function<std::string(std::string)> edit;
    std::vector<std::string> args;
    std::string message;
};

void expect_stops(const std::vector<bad_run>& cases) {
    for (const auto& c : cases) {
        scratch_dir dir;
        copy_herd(dir);
        edit_file(dir, c.file, c.edit);
        const auto r = testing::run_binary(dir, c.args);
        EXPECT_NE(r.status, 0) << c.what;
        EXPECT_FALSE(dir.exists("OK_KREL")) << c.what;
        EXPECT_TRUE(contains(flat(r.log), flat(c.message))) << c.what << "\n" << r.log.substr(r.log.size() > 1500 ? r.log.size() - 1500 : 0)
                                                << r.err;
    }
}

TEST(BadGenotypeRuns, TextGenotypeRecordsStopNamingFileLineAndValue) {
    const std::string spaced = "genotypes_spaced.txt", nospace = "genotypes_nospace.txt";
    const auto as_spaced = text_args(spaced), as_nospace = text_args(nospace);
    expect_stops({
        {"level twice, spaced", spaced, identity_of_line(2, 7), as_spaced,
         "The level 53 on line 7 of genotypes_spaced.txt was already given on line 2"},
        {"level twice, no spaces", nospace, identity_of_line(2, 7), as_nospace,
         "The level 53 on line 7 of genotypes_nospace.txt was already given on line 2"},
        {"letter, spaced", spaced, on_line(5, item_set(3, "A")), as_spaced,
         "The genotype 'A' of SNP 3 on line 5 of genotypes_spaced.txt is not 0, 1 or 2"},
        {"letter, no spaces", nospace, on_line(5, digit_set(2, 'A')), as_nospace,
         "The genotype 'A' of SNP 3 on line 5 of genotypes_nospace.txt is not 0, 1 or 2"},
        {"identity, spaced", spaced, on_line(5, item_set(0, "x1336")), as_spaced,
         "The identity 'x1336' on line 5 of genotypes_spaced.txt is not an integer"},
        {"identity, no spaces", nospace, on_line(5, item_set(0, "x1336")), as_nospace,
         "The identity 'x1336' on line 5 of genotypes_nospace.txt is not an integer"},
        {"9, no spaces", nospace, on_line(300, digit_set(1999, '9')), as_nospace,
         "The genotype '9' of SNP 2000 on line 300 of genotypes_nospace.txt is not 0, 1 or 2"},
        {"3, no spaces", nospace, on_line(4, digit_set(0, '3')), as_nospace,
         "The genotype '3' of SNP 1 on line 4 of genotypes_nospace.txt"},
        {"3, spaced", spaced, on_line(4, item_set(1, "3")), as_spaced,
         "The genotype '3' of SNP 1 on line 4 of genotypes_spaced.txt"},
        {"9, spaced", spaced, on_line(9, item_set(20, "9")), as_spaced,
         "The genotype '9' of SNP 20 on line 9 of genotypes_spaced.txt"},
        {"-1, spaced", spaced, on_line(9, item_set(20, "-1")), as_spaced,
         "The genotype '-1' of SNP 20 on line 9 of genotypes_spaced.txt"},
        {"1.5, spaced", spaced, on_line(300, item_set(2000, "1.5")), as_spaced,
         "The genotype '1.5' of SNP 2000 on line 300 of genotypes_spaced.txt"},
    });
}

TEST(BadGenotypeRuns, PlinkFilesetsMustAgree) {
    const auto cut_tail = [](std::size_t n) {
        return [n](const std::string& text) { return text.substr(0, text.size() - n); };
    };
    expect_stops({
        {"level twice in the .fam", "genotypes.fam", identity_of_line(2, 7), plink_args(),
         "The level 53 on line 7 of genotypes.fam was already given on line 2"},
        {"empty .fam", "genotypes.fam", [](const std::string&) { return std::string(); }, plink_args(),
         "No individuals in genotypes.fam"},
        // 300 individuals: 75 bytes a SNP, 2000 SNPs.
        {".bim a line short", "genotypes.bim", [](const std::string& t) { auto l = lines_of(t); l.pop_back(); return joined(l); },
         plink_args(),
         "genotypes.bed holds 150000 bytes of genotypes, but the 1999 SNPs of genotypes.bim and the 300 individuals "
         "of genotypes.fam need 149925 (75 bytes a SNP)"},
        {".bed with bytes to spare", "genotypes.bed", [](const std::string& t) { return t + std::string(75, '\0'); },
         plink_args(), "genotypes.bed holds 150075 bytes of genotypes, but the 2000 SNPs"},
        {".bed cut short", "genotypes.bed", cut_tail(10), plink_args(), "genotypes.bed holds 149990 bytes"},
    });
}

TEST(BadGenotypeRuns, FrequencyAndReferenceFilesStopNamingTheRecord) {
    expect_stops({
        {"frequency above 1, PLINK", "frequencies.txt", on_line(7, item_set(1, "1.2")), plink_args(),
         "The allele frequency '1.2' on line 7 of frequencies.txt is not between 0 and 1"},
        {"negative frequency, text", "frequencies.txt", on_line(2000, item_set(1, "-0.1")),
         text_args("genotypes_spaced.txt"),
         "The allele frequency '-0.1' on line 2000 of frequencies.txt is not between 0 and 1"},
        {"frequency nan, text", "frequencies.txt", on_line(3, item_set(1, "nan")), text_args("genotypes_nospace.txt"),
         "The allele frequency 'nan' on line 3 of frequencies.txt"},
        {"empty reference list", "ref.txt", [](const std::string&) { return std::string("\n"); },
         plink_args({"--ref", "ref.txt"}), "The reference file ref.txt lists no animals"},
    });
}

// Sum of 2p(1 - p) over the frequency file, as the log prints it.
std::string sum_2pq_line() {
    double sum = 0.0;
    for (const auto& line : lines_of(testing::read_text(herd / "frequencies.txt"))) {
        std::istringstream in(line);
        int snp = 0;
        double p = 0.0;
        in >> snp >> p;
        sum += 2.0 * p * (1.0 - p);
    }
    char text[64];
    std::snprintf(text, sizeof text, "Sum of 2pq: %.3f", sum);
    return text;
}

TEST(BadGenotypeRuns, ByteOrderMarksAndChromosomeNamesAreReadThrough) {
    const std::string bom = "\xEF\xBB\xBF";
    const auto with_bom = [bom](const std::string& text) { return bom + text; };
    const std::string sum2pq = sum_2pq_line();
    {
        // Every PLINK-side file with a mark, sex and mitochondrial chromosomes
        // in the .bim, and a reference list.
        scratch_dir dir;
        copy_herd(dir);
        for (const std::string file : {"genotypes.fam", "genotypes.bim", "frequencies.txt"})
            edit_file(dir, file, with_bom);
        edit_file(dir, "genotypes.bim", [](const std::string& text) {
            auto lines = lines_of(text);
            const char* names[] = {"X", "Y", "MT", "chrX"};
            for (std::size_t k = 0; k < 4; ++k) lines[1000 + k] = item_set(0, names[k])(lines[1000 + k]);
            return joined(lines);
        });
        std::string ref = bom;
        const auto fam = lines_of(testing::read_text(herd / "genotypes.fam"));
        for (std::size_t k = 0; k < 200; ++k) ref += fam[k].substr(0, fam[k].find(' ')) + "\n";
        dir.write("ref.txt", ref);
        const auto r = testing::run_binary(dir, plink_args({"--ref", "ref.txt", "--only-geno"}));
        ASSERT_EQ(r.status, 0) << r.log << r.err;
        EXPECT_TRUE(dir.exists("OK_KREL"));
        EXPECT_TRUE(contains(r.log, "Number of genotypes : 300"));
        EXPECT_TRUE(contains(r.log, "Number of snps      : 2000"));
        EXPECT_TRUE(contains(flat(r.log), sum2pq)) << sum2pq << "\n" << r.log;
    }
    {
        // Text genotypes and their frequencies with a mark; the sum of 2pq
        // comes from the frequencies, the last SNP's among them.
        scratch_dir dir;
        copy_herd(dir);
        for (const std::string file : {"genotypes_spaced.txt", "frequencies.txt"}) edit_file(dir, file, with_bom);
        const auto r = testing::run_binary(dir, testing::followed_by(text_args("genotypes_spaced.txt"), {"--only-geno"}));
        ASSERT_EQ(r.status, 0) << r.log << r.err;
        EXPECT_TRUE(dir.exists("OK_KREL"));
        EXPECT_TRUE(contains(r.log, "Number of genotypes : 300"));
        EXPECT_TRUE(contains(r.log, "Number of snps      : 2000"));
        EXPECT_TRUE(contains(flat(r.log), sum2pq)) << sum2pq << "\n" << r.log;
    }
}

}  // namespace
}  // namespace krel
