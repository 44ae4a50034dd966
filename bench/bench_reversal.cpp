// The ERC reversal on a large generated pedigree: one sweep, the whole
// iteration, and the memory-bound floor of a sweep (one pass that reads
// the pedigree arrays in processing order, the parents' entries included).
//
//   build/bench/bench_reversal
//
// Data: $KREL_BENCH_DATA/ped10m (pedigree.txt and pev.txt), made by
// bench/pedigree_sizes.sh; the 1,000,000-animal set ped1m is used as well
// when present.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bench_main.h"
#include "engine/erc_reversal.h"
#include "inputs/pedigree.h"
#include "inputs/solution_files.h"
#include "util/logger.h"

namespace {

namespace fs = std::filesystem;

struct data_set {
    krel::pedigree_type ped;
    std::vector<std::int32_t> order;
    krel::dmatrix target;
    std::vector<double> rel;
};

data_set& load(const fs::path& dir) {
    static std::map<std::string, data_set> sets;
    auto [it, fresh] = sets.try_emplace(dir.string());
    data_set& d = it->second;
    if (fresh) {
        d.ped.readpedigree_nomax((dir / "pedigree.txt").string());
        d.ped.getorder(d.order);
        const std::int32_t n = d.ped.nlength();
        krel::dmatrix pev(n, 1);
        krel::readsol((dir / "pev.txt").string(), 1, pev);
        d.target.resize(1, n);
        d.rel.assign(static_cast<std::size_t>(n) + 1, 0.0);
        for (std::int32_t i = 1; i <= n; ++i) {
            d.target(1, i) = pev(i, 1);
            d.rel[i] = 1.0 - pev(i, 1) / 25.0;
        }
    }
    return d;
}

const double g = 25.0, r = 58.333333333333336;

void bm_floor(benchmark::State& state, fs::path dir) {
    auto& d = load(dir);
    const std::int32_t n = d.ped.nlength();
    std::vector<double> f(static_cast<std::size_t>(n) + 1, 1.0);
    for (auto _ : state) {
        double acc = 0.0;
        for (std::int32_t k = n; k >= 1; --k) {
            const std::int32_t i = d.order[k];
            acc += f[i] + f[d.ped.sire(i)] + f[d.ped.dam(i)] + d.target(1, i);
        }
        benchmark::DoNotOptimize(acc);
    }
    state.counters["levels"] = n;
}

void bm_sweep(benchmark::State& state, fs::path dir) {
    auto& d = load(dir);
    const std::int32_t n = d.ped.nlength();
    krel::dmatrix x(1, n), erc;
    const double lambda = (1.0 - 0.3) / 0.3;
    for (std::int32_t i = 1; i <= n; ++i) x(1, i) = lambda * d.rel[i] / (1.0 - d.rel[i]);
    const krel::dmatrix ginv(1, 1, 1.0 / g), rinv(1, 1, 1.0 / r);
    for (auto _ : state) krel::tiermeyer_rev(d.ped, d.order, n, d.ped.nupg, ginv, rinv, x, d.target, false, erc);
    state.counters["levels"] = n;
}

void bm_reversal(benchmark::State& state, fs::path dir) {
    auto& d = load(dir);
    const std::int32_t n = d.ped.nlength();
    const krel::dmatrix ginv(1, 1, 1.0 / g), rinv(1, 1, 1.0 / r);
    krel::dmatrix erc;
    for (auto _ : state) krel::erc_rev(d.ped, d.order, n, d.ped.nupg, ginv, rinv, d.target, d.rel, 0.3, 30, erc);
    state.counters["levels"] = n;
}

}  // namespace

int main(int argc, char** argv) {
    const char* env = std::getenv("KREL_BENCH_DATA");
    const fs::path data = env ? fs::path(env) : fs::absolute(fs::path(argv[0])).parent_path().parent_path() / "bench-data";
    for (const char* name : {"ped1m", "ped10m"}) {
        const fs::path dir = data / name;
        if (!fs::exists(dir / "pev.txt")) continue;
        benchmark::RegisterBenchmark((std::string("floor/") + name).c_str(), bm_floor, dir)
            ->Unit(benchmark::kMillisecond)->Iterations(3);
        benchmark::RegisterBenchmark((std::string("sweep/") + name).c_str(), bm_sweep, dir)
            ->Unit(benchmark::kMillisecond)->Iterations(3);
        benchmark::RegisterBenchmark((std::string("reversal/") + name).c_str(), bm_reversal, dir)
            ->Unit(benchmark::kMillisecond)->Iterations(1);
    }
    return krel::bench::run_benchmarks(argc, argv);
}
