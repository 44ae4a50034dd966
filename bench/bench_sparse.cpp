// Assembly of a sparse matrix with the structure of a pedigree inverse
// relationship matrix: scattered additions into a coosparse sized to the
// number of equations, conversion to crssparse and sort, against CHOLMOD's
// conversion of the same triplets. Run as build/bench/bench_sparse; the
// counters give each phase in seconds (the best of the iterations, wall clock
// and CPU time of the thread), the peak resident memory of each side and the
// mean number of probes per stored key.
#include <benchmark/benchmark.h>
#include <cholmod.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench_main.h"
#include "bench_support.h"
#include "sparse/sparse_matrix.h"

namespace {

struct pedigree {
    std::vector<std::int32_t> sire, dam;  // 0: founder
};

// One animal in a hundred is a founder; every other animal has two distinct
// parents drawn among the animals before it.
pedigree random_pedigree(std::int32_t n, unsigned seed) {
    std::mt19937_64 gen(seed);
    const std::int32_t founders = std::max(2, n / 100);
    pedigree p;
    p.sire.assign(static_cast<std::size_t>(n) + 1, 0);
    p.dam.assign(static_cast<std::size_t>(n) + 1, 0);
    for (std::int32_t i = founders + 1; i <= n; ++i) {
        std::uniform_int_distribution<std::int32_t> parent(1, i - 1);
        const std::int32_t s = parent(gen);
        std::int32_t d = parent(gen);
        while (d == s) d = parent(gen);
        p.sire[static_cast<std::size_t>(i)] = s;
        p.dam[static_cast<std::size_t>(i)] = d;
    }
    return p;
}

// The contributions of each animal with plain coefficients: the 3 x 3
// pattern of Henderson's rules for an animal with both parents known, a
// single diagonal element for a founder. f receives both triangles, as an
// assembly routine writes them.
template <class F>
void henderson(const pedigree& p, F&& f) {
    const std::int32_t n = static_cast<std::int32_t>(p.sire.size()) - 1;
    for (std::int32_t i = 1; i <= n; ++i) {
        const std::int32_t s = p.sire[static_cast<std::size_t>(i)];
        const std::int32_t d = p.dam[static_cast<std::size_t>(i)];
        if (s == 0) {
            f(i, i, 1.0);
            continue;
        }
        f(i, i, 2.0);
        f(i, s, -1.0);
        f(s, i, -1.0);
        f(i, d, -1.0);
        f(d, i, -1.0);
        f(s, s, 0.5);
        f(d, d, 0.5);
        f(s, d, 0.5);
        f(d, s, 0.5);
    }
}

// Wall-clock and CPU seconds of a phase: the machine is shared, and the CPU
// time of the thread shows what the phase costs when it is not waiting for
// a core.
struct stopwatch {
    std::chrono::steady_clock::time_point wall = std::chrono::steady_clock::now();
    double cpu = thread_cpu();
    static double thread_cpu() {
        timespec t;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
    }
    double wall_s() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
    }
    double cpu_s() const { return thread_cpu() - cpu; }
};

// The best of the iterations: the least disturbed by other work.

using krel::bench::keep_min;
using krel::bench::reset_peak;

// Mean number of probes that find each stored key in the final table: the
// probes of its insertion into that table.
double mean_probes(const krel::coosparse& coo) {
    const auto ij = coo.ij_table();
    const std::int64_t nel = coo.getnel();
    std::int64_t keys = 0, probes = 0;
    for (std::int64_t k = 0; k < nel; ++k) {
        const std::int32_t r = ij[static_cast<std::size_t>(2 * k)];
        if (r == 0) continue;
        krel::hash_probe walk(r, ij[static_cast<std::size_t>(2 * k + 1)], nel);
        ++keys;
        do ++probes;
        while (walk.next() != k + 1);
    }
    return keys ? static_cast<double>(probes) / static_cast<double>(keys) : 0.0;
}

void pedigree_assembly(benchmark::State& state) {
    const std::int32_t n = static_cast<std::int32_t>(state.range(0));
    const pedigree ped = random_pedigree(n, 2024);
    double add_s = 0, convert_s = 0, sort_s = 0, cholmod_s = 0, probes = 0;
    double add_cpu = 0, convert_cpu = 0, sort_cpu = 0, cholmod_cpu = 0, add_nogrowth_s = 0;
    double peak_krel = 0, peak_cholmod = 0;
    std::int64_t nnz = 0, nel = 0, triplets = 0, adds = 0;

    for (auto _ : state) {
        reset_peak();
        {
            stopwatch t;
            krel::coosparse coo(n, std::nullopt, n, true);
            adds = 0;
            henderson(ped, [&coo, &adds](std::int32_t i, std::int32_t j, double v) {
                coo.add(i, j, v);
                ++adds;
            });
            coo.setsymmetric();
            const double add_wall = t.wall_s();
            keep_min(add_s, add_wall);
            keep_min(add_cpu, t.cpu_s());

            t = stopwatch();
            krel::crssparse crs = krel::convertfromcootocrs(coo);
            const double convert_wall = t.wall_s();
            keep_min(convert_s, convert_wall);
            keep_min(convert_cpu, t.cpu_s());

            t = stopwatch();
            crs.sort();
            const double sort_wall = t.wall_s();
            keep_min(sort_s, sort_wall);
            keep_min(sort_cpu, t.cpu_s());
            state.SetIterationTime(add_wall + convert_wall + sort_wall);
            peak_krel = std::max(peak_krel, krel::bench::peak_mib());

            nnz = crs.totalnumberofelements();
            nel = coo.getnel();
            probes = mean_probes(coo);
            benchmark::DoNotOptimize(crs.nzval().data());
        }

        // The same additions into a table already large enough never to
        // grow: the difference to add_s is the cost of the growths.
        {
            const stopwatch t;
            krel::coosparse coo(n, std::nullopt, nel, true);
            henderson(ped, [&coo](std::int32_t i, std::int32_t j, double v) { coo.add(i, j, v); });
            keep_min(add_nogrowth_s, t.wall_s());
            benchmark::DoNotOptimize(coo.values().data());
        }

        // The same upper triangle as triplets, converted by CHOLMOD.
        reset_peak();
        cholmod_common c;
        cholmod_l_start(&c);
        triplets = 0;
        henderson(ped, [&triplets](std::int32_t i, std::int32_t j, double) { triplets += i <= j; });
        cholmod_triplet* t =
            cholmod_l_allocate_triplet(static_cast<std::size_t>(n), static_cast<std::size_t>(n),
                                       static_cast<std::size_t>(triplets), 1, CHOLMOD_REAL, &c);
        auto* ti = static_cast<SuiteSparse_long*>(t->i);
        auto* tj = static_cast<SuiteSparse_long*>(t->j);
        auto* tx = static_cast<double*>(t->x);
        std::size_t k = 0;
        henderson(ped, [&](std::int32_t i, std::int32_t j, double v) {
            if (i > j) return;
            ti[k] = i - 1;
            tj[k] = j - 1;
            tx[k] = v;
            ++k;
        });
        t->nnz = k;
        const stopwatch w;
        cholmod_sparse* a = cholmod_l_triplet_to_sparse(t, 0, &c);
        keep_min(cholmod_s, w.wall_s());
        keep_min(cholmod_cpu, w.cpu_s());
        peak_cholmod = std::max(peak_cholmod, krel::bench::peak_mib());
        if (a == nullptr) state.SkipWithError("CHOLMOD conversion failed");
        cholmod_l_free_sparse(&a, &c);
        cholmod_l_free_triplet(&t, &c);
        cholmod_l_finish(&c);
    }

    const double krel_s = add_s + convert_s + sort_s;
    const double krel_cpu = add_cpu + convert_cpu + sort_cpu;
    state.counters["add_s"] = add_s;
    state.counters["convert_s"] = convert_s;
    state.counters["sort_s"] = sort_s;
    state.counters["krel_s"] = krel_s;
    state.counters["cholmod_s"] = cholmod_s;
    state.counters["ratio"] = krel_s / cholmod_s;
    state.counters["add_cpu"] = add_cpu;
    state.counters["convert_cpu"] = convert_cpu;
    state.counters["sort_cpu"] = sort_cpu;
    state.counters["cholmod_cpu"] = cholmod_cpu;
    state.counters["ratio_cpu"] = krel_cpu / cholmod_cpu;
    state.counters["add_nogrowth_s"] = add_nogrowth_s;
    state.counters["probes_per_key"] = probes;
    state.counters["peak_krel_MB"] = peak_krel;
    state.counters["peak_cholmod_MB"] = peak_cholmod;
    state.counters["adds"] = static_cast<double>(adds);
    state.counters["triplets"] = static_cast<double>(triplets);
    state.counters["nnz"] = static_cast<double>(nnz);
    state.counters["table"] = static_cast<double>(nel);
}

BENCHMARK(pedigree_assembly)
    ->Arg(100000)
    ->Arg(1000000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return krel::bench::run_benchmarks(argc, argv); }
