// Drawing the plots of --plots from a million points: Manhattan and QQ plot
// of 1,000,000 SNP tests on 29 chromosomes, distribution and scatter of the
// reliabilities of 1,000,000 animals. Points that fall on the same pixels
// are drawn once; the counters give the bytes of the PNG and PDF written.
// The files go to the working directory. KREL_BENCH_POINTS sets another
// number of points.
//
//   build/bench/bench_plots
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "bench_main.h"
#include "report/plots.h"
#include "report/snp_statistics.h"

namespace {

const std::int64_t points = [] {
    const char* n = std::getenv("KREL_BENCH_POINTS");
    return n != nullptr && std::atoll(n) >= 29 ? std::atoll(n) : 1000000LL;
}();

struct snp_set {
    std::vector<krel::snp_annotation> snps;
    std::vector<krel::snp_test> tests;
};

// Null tests but for a few hundred SNPs with large effects.
const snp_set& snp_tests() {
    static const snp_set set = [] {
        snp_set s;
        std::mt19937_64 rng(7);
        std::normal_distribution<double> normal;
        for (std::int64_t j = 0; j < points; ++j) {
            const std::int64_t chrom = 1 + j * 29 / points;
            s.snps.push_back({std::to_string(chrom), "snp" + std::to_string(j + 1), 1000 + (j % (points / 29)) * 80,
                              "A", "G"});
            const double b = normal(rng) + (j % 3001 == 0 ? 12.0 : 0.0);
            krel::snp_test t;
            t.informative = true;
            t.a1_freq = 0.3;
            t.beta = b;
            t.se = 1.0;
            t.z = b;
            t.log10_p = krel::minus_log10_p(b, 1.0);
            t.p = std::pow(10.0, -t.log10_p);
            s.tests.push_back(t);
        }
        return s;
    }();
    return set;
}

const krel::reliability_groups& reliabilities() {
    static const krel::reliability_groups g = [] {
        krel::reliability_groups r;
        std::mt19937_64 rng(11);
        std::gamma_distribution<double> a(4.0), b(6.0);
        for (std::int64_t i = 0; i < points; ++i) {
            const double x = a(rng), y = b(rng), ped = x / (x + y);
            const double gain = 0.3 * (1.0 - ped) * std::generate_canonical<double, 53>(rng);
            (i % 10 == 0 ? r.pedigree_genotyped : r.pedigree_other).push_back(ped);
            (i % 10 == 0 ? r.genomic_genotyped : r.genomic_other).push_back(ped + gain);
        }
        return r;
    }();
    return g;
}

void report_sizes(benchmark::State& state, const std::string& stem) {
    state.counters["png_bytes"] = static_cast<double>(std::filesystem::file_size(stem + ".png"));
    state.counters["pdf_bytes"] = static_cast<double>(std::filesystem::file_size(stem + ".pdf"));
}

void manhattan(benchmark::State& state) {
    const snp_set& s = snp_tests();
    for (auto _ : state) krel::plot_manhattan("bench_manhattan", s.snps, s.tests, "Manhattan plot");
    report_sizes(state, "bench_manhattan");
}

void qq(benchmark::State& state) {
    const snp_set& s = snp_tests();
    const double lambda = krel::genomic_inflation(s.tests);
    for (auto _ : state) krel::plot_qq("bench_qq", s.tests, lambda, "QQ plot");
    report_sizes(state, "bench_qq");
}

void distribution(benchmark::State& state) {
    for (auto _ : state) krel::plot_reliability_distribution("bench_reliabilities", reliabilities(), "Reliabilities");
    report_sizes(state, "bench_reliabilities");
}

void scatter(benchmark::State& state) {
    for (auto _ : state) krel::plot_reliability_scatter("bench_scatter", reliabilities(), "Scatter");
    report_sizes(state, "bench_scatter");
}

}  // namespace

BENCHMARK(manhattan)->Unit(benchmark::kMillisecond);
BENCHMARK(qq)->Unit(benchmark::kMillisecond);
BENCHMARK(distribution)->Unit(benchmark::kMillisecond);
BENCHMARK(scatter)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) { return krel::bench::run_benchmarks(argc, argv); }
