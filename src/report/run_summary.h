#pragma once
// The machine-readable summary of a run, for the pipelines that run krel at
// every evaluation: what was asked, how large the inputs were, which steps
// ran for how long, what came out, and the error if the run stopped.
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace krel {

// Mean, minimum and maximum of the finite values of a group of animals, and
// the counts of values at the floor, below zero and not finite.
struct reliability_summary {
    std::int64_t count = 0;
    double mean = 0.0, min = 0.0, max = 0.0;
    std::int64_t floored = 0, negative = 0, non_finite = 0;
};
reliability_summary summarise_reliabilities(std::span<const double> values, double floor);

struct trait_reliabilities {
    std::int32_t trait = 0;
    reliability_summary genotyped;
    bool has_non_genotyped = false;
    reliability_summary non_genotyped;
};

struct run_step {
    std::string name;
    double wall_seconds = 0.0;
    std::int64_t peak_rss_kib = -1;  // high-water mark of the process after the step
};

struct run_record {
    std::string program, version, commit;
    std::string command;  // "krel", "gwas" or empty before the parser decided
    std::vector<std::string> arguments;
    std::vector<std::pair<std::string, std::string>> options;
    // Input sizes (animals without genetic groups); -1 until known.
    std::int64_t animals = -1, genotyped = -1, snps = -1, traits = -1;
    // The operations in the order they were entered.
    std::vector<std::string> road;
    std::vector<run_step> steps;
    std::vector<trait_reliabilities> reliabilities;
    // The SNP tests: summary statistic files, SNPs without information and
    // the genomic inflation factor by trait.
    std::vector<std::string> sumstats_files;
    std::int64_t snps_without_information = -1;
    std::vector<double> inflation;
    std::vector<std::string> result_files;
    int exit_status = 0;
    std::string error;
    std::filesystem::file_time_type start = std::filesystem::file_time_type::clock::now();

    // Runs one step of the road, timing it; a step that throws is still
    // recorded, with the time up to the failure.
    template <class F>
    void step(const std::string& name, F&& work) {
        road.push_back(name);
        const auto t0 = std::chrono::steady_clock::now();
        auto record = [&] {
            steps.push_back({name, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(),
                             peak_resident_kib()});
        };
        try {
            work();
        } catch (...) {
            record();
            throw;
        }
        record();
    }

    // The resident-set high-water mark of this process in KiB, -1 where
    // /proc does not tell it.
    static std::int64_t peak_resident_kib();
};

// Result files in the working directory (prefixes "qd_" and "krel_", the
// log, the marker) written since the start of the run, sorted by name.
std::vector<std::string> files_written_since(std::filesystem::file_time_type start);

// Writes the summary as JSON; a failure to write is logged as a warning,
// never an error, so that it cannot change how the run ends.
void write_run_summary(const std::string& file, const run_record& record);

inline constexpr const char* run_summary_file = "krel_summary.json";

}  // namespace krel
