#include "reader_targets.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "inputs/frequency_file.h"
#include "inputs/genotypes.h"
#include "inputs/level_list.h"
#include "inputs/pedigree.h"
#include "inputs/solution_files.h"
#include "inputs/variance_files.h"
#include "util/dense_matrix.h"
#include "util/error_stop.h"
#include "util/logger.h"

namespace krel::fuzz {
namespace {

using bytes_view = std::span<const std::uint8_t>;

void write_file(const std::string& name, bytes_view bytes) {
    std::ofstream out(name, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void write_text(const std::string& name, std::string_view text) {
    write_file(name, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

// Runs one reader call; its error stop is the expected end of a bad file.
template <class Call>
void expect_results_or_stop(Call&& call) {
    try {
        call();
    } catch (const error_stop&) {
        if (std::getenv("KREL_FUZZ_LOG") != nullptr) std::cerr << "(error stop)\n";
    }
}

// Levels the genotype readers may meet, as a pedigree of that size would allow.
constexpr std::int32_t pedigree_levels = 4000;

// A small pedigree with a group, inbred animals and an animal known only as
// a parent: enough for the inbreeding readers to have levels to fill.
constexpr std::string_view small_pedigree =
    "1 0 0\n2 0 0\n3 1 2\n4 1 2\n5 3 4\n6 3 11\n7 5 6\n8 5 4\n9 7 8\n10 0 9\n";

void fuzz_pedigree(bytes_view bytes) {
    write_file("pedigree_under_test.txt", bytes);
    for (const std::int32_t method : {1, 2}) {
        expect_results_or_stop([&] {
            pedigree_type ped;
            ped.inbmethod = method;
            ped.readpedigree_nomax("pedigree_under_test.txt");
            ped.pedfile.reset();  // computed afresh: no cache read or written
            ped.computeinbreeding_ped();
        });
    }
}

void fuzz_inbreeding_file(bytes_view bytes) {
    write_file("inbreeding.txt", bytes);
    expect_results_or_stop([&] {
        pedigree_type ped;
        ped.allocate(11, 1);
        ped.readinbreeding("inbreeding.txt");
    });
}

void fuzz_inbreeding_cache(bytes_view bytes) {
    write_text("pedigree.txt", small_pedigree);
    write_file("pedigree.txt.inb", bytes);
    expect_results_or_stop([&] {
        pedigree_type ped;
        ped.readpedigree_nomax("pedigree.txt");
        ped.pedfile = "pedigree.txt";
        ped.computeinbreeding_ped();
    });
}

// PEV and REL files (five columns, or the wide layout of one column a trait)
// and the SNP solution files (five or six columns) share these readers.
void fuzz_solution_files(bytes_view bytes) {
    write_file("solutions.txt", bytes);
    const std::string file = "solutions.txt";
    for (const bool column_4 : {false, true}) {
        expect_results_or_stop([&] {
            dmatrix values(50, 2);
            readsol(file, 1, values, column_4);
        });
    }
    expect_results_or_stop([&] {
        dmatrix values(50, 2);
        readsol_tarnelo(file, values);
    });
    expect_results_or_stop([&] {
        dmatrix values(50, 2);
        readsol_tarnelo_reg(file, 2, values);
    });
}

void fuzz_variance_files(bytes_view bytes) {
    write_file("variances.txt", bytes);
    expect_results_or_stop([&] {
        std::int32_t traits = 0;
        std::vector<double> h2;
        readh2("variances.txt", traits, h2);
    });
    expect_results_or_stop([&] {
        dmatrix genetic;
        readgf("variances.txt", 1, 2, genetic);
    });
    for (const std::int32_t traits_given : {0, 2}) {
        expect_results_or_stop([&] {
            std::int32_t traits = traits_given;
            std::vector<dmatrix> residual;
            readrf("variances.txt", traits, residual);
        });
    }
}

void fuzz_frequency_file(bytes_view bytes) {
    write_file("frequencies.txt", bytes);
    expect_results_or_stop([&] {
        std::int32_t snps = 0;
        std::vector<double> frequencies;
        readfrequency("frequencies.txt", snps, frequencies);
    });
}

void fuzz_text_genotypes(bytes_view bytes) {
    write_file("genotypes.txt", bytes);
    expect_results_or_stop([&] {
        std::int32_t snps = 0, genotyped = 0;
        covariable_type genotypes;
        bool plink = false;
        readgenotype("genotypes.txt", "none", pedigree_levels, snps, genotyped, genotypes, plink);
    });
}

// The three files of a PLINK set travel in one input, .fam, .bim and .bed in
// that order, split at the first two lines "%%": the text files come first so
// that the binary part can hold any byte.
void fuzz_plink_fileset(bytes_view bytes) {
    const std::string_view all(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    constexpr std::string_view marker = "\n%%\n";
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (parts.size() < 2) {
        const std::size_t at = all.find(marker, start);
        if (at == std::string_view::npos) break;
        parts.push_back(all.substr(start, at - start));
        start = at + marker.size();
    }
    parts.push_back(all.substr(std::min(start, all.size())));
    while (parts.size() < 3) parts.emplace_back();
    write_text("genotypes.fam", parts[0]);
    write_text("genotypes.bim", parts[1]);
    write_text("genotypes.bed", parts[2]);
    for (const char* frequencies : {"compute", "none"}) {
        expect_results_or_stop([&] {
            std::int32_t snps = 0, genotyped = 0;
            covariable_type genotypes;
            bool plink = false;
            readgenotype("genotypes.bed", frequencies, pedigree_levels, snps, genotyped, genotypes, plink);
        });
    }
}

// The reference animals (--ref) and the animals with phenotypes (--pheno).
void fuzz_level_list(bytes_view bytes) {
    write_file("levels.txt", bytes);
    expect_results_or_stop([&] { read_level_list("levels.txt", pedigree_levels, "fuzz", "level_list"); });
}

constexpr reader_target targets[] = {
    {"pedigree", fuzz_pedigree},
    {"inbreeding_file", fuzz_inbreeding_file},
    {"inbreeding_cache", fuzz_inbreeding_cache},
    {"solution_files", fuzz_solution_files},
    {"variance_files", fuzz_variance_files},
    {"frequency_file", fuzz_frequency_file},
    {"text_genotypes", fuzz_text_genotypes},
    {"plink_fileset", fuzz_plink_fileset},
    {"level_list", fuzz_level_list},
};

std::filesystem::path scratch_directory;

void remove_scratch_directory() {
    std::error_code ignored;
    std::filesystem::current_path(std::filesystem::temp_directory_path(), ignored);
    std::filesystem::remove_all(scratch_directory, ignored);
}

}  // namespace

std::span<const reader_target> reader_targets() { return targets; }

const reader_target* find_reader_target(std::string_view name) {
    for (const auto& t : targets)
        if (t.name == name) return &t;
    return nullptr;
}

void enter_scratch_directory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "krel-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        std::exit(2);
    }
    scratch_directory = pattern;
    std::filesystem::current_path(scratch_directory);
    std::atexit(remove_scratch_directory);
    global_logger().reset();
    // KREL_FUZZ_LOG=1 shows what the readers say, to see how far an input gets.
    if (const char* show = std::getenv("KREL_FUZZ_LOG"); show != nullptr && *show == '1')
        global_logger().add_log_unit(std::cerr);
    else
        global_logger().configure(std::nullopt, std::nullopt, log_level::all_off);
}

}  // namespace krel::fuzz
