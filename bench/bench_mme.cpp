// Assembly of the coefficient matrix of the single-trait animal model (a
// general mean and an animal effect with A-inverse and inbreeding, plus a
// diagonal record weight) on a generated pedigree, against CHOLMOD's
// conversion of the same triplets into a compressed matrix. Run it as
//
//   build/bench/bench_mme [--benchmark_filter=...]
//
// after generating the pedigree with
//
//   build/tools/krel-simulate --out build/bench-data/ped1m --animals 1000000 --genotyped 0 --snps 1
//
// (or bench/pedigree_sizes.sh); data sets live in build/bench-data or
// $KREL_BENCH_DATA, and missing ones are skipped. Reading the pedigree and its
// inbreeding come first and are not timed.
//
// Counters, in seconds the best of the iterations (wall clock):
//   ped_s, records_s   the pedigree part (addrandompart) and the records
//                      of the assembly into a coosparse sized to the number
//                      of equations; add_s is their sum;
//   convert_s, sort_s  convertfromcootocrs and sort;
//   krel_s             add_s + convert_s + sort_s;
//   cholmod_s          cholmod_l_triplet_to_sparse of the same triplets;
//   ratio              krel_s / cholmod_s;
//   *_cpu              the same in CPU time of the thread, ratio_cpu;
//   ped_plain_s        the pedigree part as a plain loop of add into the
//                      table sized to the number of equations, which then
//                      grows (without the sizing and the fetching ahead of
//                      addrandompart);
//   probes_per_key     probes that find each stored key in the final table
//                      (those of its insertion into that table);
//   probes_per_add     the same averaged over all additions (against the
//                      final table);
//   table_initial, table  the table size at construction and at the end;
//   peak_*_MiB         peak of the resident set during each phase over
//                      what was resident before the assembly (before the
//                      conversion for CHOLMOD, its triplets included).
#include <benchmark/benchmark.h>
#include <cholmod.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench_main.h"
#include "bench_support.h"
#include "inputs/pedigree.h"
#include "mme/henderson_rules.h"
#include "mme/model_description.h"
#include "mme/random_contributions.h"
#include "sparse/sparse_matrix.h"

namespace {

namespace fs = std::filesystem;

struct stopwatch {
    std::chrono::steady_clock::time_point wall = std::chrono::steady_clock::now();
    double cpu = thread_cpu();
    static double thread_cpu() {
        timespec t;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
    }
    double wall_s() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count(); }
    double cpu_s() const { return thread_cpu() - cpu; }
};



// Peaks are taken over a baseline from before the first phase: what a
// phase holds together with what the earlier phases left alive.
using krel::bench::keep_min;
using krel::bench::peak_memory;
using krel::bench::resident_kib;

// The model of the exact inverse of the left-hand side, and record weights
// w x ERC for 60% of the animals.
struct model {
    std::vector<krel::pedigree_type> ped;  // ped[2]: the animal effect
    krel::param_type param;
    std::vector<double> x;  // 1-based
    std::int32_t nped = 0;

    explicit model(const fs::path& file) : ped(3) {
        krel::pedigree_type& p = ped[2];
        p.readpedigree_nomax(file.string());
        p.pedfile.reset();  // no cache file next to the data
        p.computeinbreeding_ped();
        nped = p.nlength();

        param.ntrait = 1;
        param.neffect = 2;
        krel::allocpar(param);
        param.modelmat.assign(1);
        param.nlevel[1] = 1;
        param.nlevel[2] = nped;
        param.typeeff[2] = 3;
        param.effectopt[2] = 1;
        krel::check_and_finalize(param);
        param.ginv[2](1, 1) = 1.0 / 0.3;

        std::mt19937_64 gen(7);
        std::uniform_real_distribution<double> u(0.0, 1.0);
        x.assign(static_cast<std::size_t>(nped) + 1, 0.0);
        for (std::int32_t i = 1; i <= nped; ++i)
            if (u(gen) < 0.6) x[static_cast<std::size_t>(i)] = (0.2 + 4.8 * u(gen)) / 0.7;
    }

    // The records' part: the mean row and the animals' diagonal.
    void add_records(krel::coosparse& c) const {
        double sum = 0.0;
        for (std::int32_t i = 1; i <= nped; ++i) sum += x[static_cast<std::size_t>(i)];
        c.add(1, 1, sum);
        for (std::int32_t i = 1; i <= nped; ++i) {
            const double v = x[static_cast<std::size_t>(i)];
            if (!(v > krel::sparse_tol)) continue;
            c.add(i + 1, i + 1, v);
            c.add(1, i + 1, v);
            c.add(i + 1, 1, v);
        }
    }

    // Every addition of the assembly that the upper storage keeps, in the
    // order of the assembly: f(row, col, value), 1-based.
    template <class F>
    void for_each_addition(F&& f) const {
        const double g = param.ginv[2](1, 1);
        krel::ainv::for_each_animal(
            ped[2], nped, [](std::int32_t, std::int32_t, std::int32_t) {},
            [&](std::int32_t i, std::int32_t s, std::int32_t m, double d) {
                const std::int32_t member[3] = {i, s, m};
                for (int a = 0; a < 3; ++a)
                    for (int b = 0; b < 3; ++b)
                        if (member[a] >= 1 && member[b] >= 1 && member[a] <= member[b])
                            f(member[a] + 1, member[b] + 1, g * d * krel::ainv::tvec[a] * krel::ainv::tvec[b]);
            });
        double sum = 0.0;
        for (std::int32_t i = 1; i <= nped; ++i) sum += x[static_cast<std::size_t>(i)];
        f(1, 1, sum);
        for (std::int32_t i = 1; i <= nped; ++i) {
            const double v = x[static_cast<std::size_t>(i)];
            if (!(v > krel::sparse_tol)) continue;
            f(i + 1, i + 1, v);
            f(1, i + 1, v);
        }
    }
};

// Probes of the walk of (row, col) up to its slot in the table of c.
std::int64_t probes_of(const krel::coosparse& c, std::int32_t row, std::int32_t col) {
    const auto ij = c.ij_table();
    krel::hash_probe walk(row, col, c.getnel());
    std::int64_t n = 1;
    for (std::int64_t slot = walk.next();; slot = walk.next(), ++n) {
        const std::size_t s = static_cast<std::size_t>(slot - 1);
        if (ij[2 * s] == row && ij[2 * s + 1] == col) return n;
        if (ij[2 * s] == 0) return n;  // not stored: cancelled to nothing
    }
}

void lhs_assembly(benchmark::State& state, const fs::path& file) {
    const auto data = std::make_unique<model>(file);
    const model& m = *data;
    const std::int32_t neq = m.param.neq;
    double ped_s = 0, records_s = 0, add_s = 0, convert_s = 0, sort_s = 0, cholmod_s = 0;
    double add_cpu = 0, convert_cpu = 0, sort_cpu = 0, cholmod_cpu = 0;
    double ped_plain_s = 0;
    double peak_add = 0, peak_convert = 0, peak_sort = 0, peak_krel = 0, peak_cholmod = 0;
    double probes_key = 0, probes_add = 0;
    std::int64_t nnz = 0, nel = 0, nel0 = 0, filled = 0, triplets = 0;

    for (auto _ : state) {
        {
            const long baseline = resident_kib();
            krel::crssparse crs;
            double iteration_s = 0.0;
            {
                const peak_memory peak(baseline);
                const stopwatch t;
                krel::coosparse c(neq, std::nullopt, neq, true);
                c.setsymmetric(true);
                nel0 = c.getnel();
                krel::addrandompart(m.param, {}, m.ped, nullptr, c);
                const double ped_wall = t.wall_s();
                m.add_records(c);
                const double add_wall = t.wall_s();
                keep_min(ped_s, ped_wall);
                keep_min(records_s, add_wall - ped_wall);
                keep_min(add_s, add_wall);
                keep_min(add_cpu, t.cpu_s());
                peak_add = std::max(peak_add, peak.mib());
                iteration_s = add_wall;

                const peak_memory peak_c(baseline);
                const stopwatch tc;
                crs = krel::convertfromcootocrs(c);
                iteration_s += tc.wall_s();
                keep_min(convert_s, tc.wall_s());
                keep_min(convert_cpu, tc.cpu_s());
                peak_convert = std::max(peak_convert, peak_c.mib());

                // Not timed: the walks of the keys in the final table.
                std::int64_t keys = 0, probes = 0;
                const auto ij = c.ij_table();
                for (std::int64_t k = 0; k < c.getnel(); ++k) {
                    const std::size_t s = static_cast<std::size_t>(k);
                    if (ij[2 * s] == 0) continue;
                    ++keys;
                    probes += probes_of(c, ij[2 * s], ij[2 * s + 1]);
                }
                probes_key = static_cast<double>(probes) / static_cast<double>(keys);
                std::int64_t adds = 0;
                probes = 0;
                m.for_each_addition([&](std::int32_t r, std::int32_t col, double) {
                    ++adds;
                    probes += probes_of(c, r, col);
                });
                probes_add = static_cast<double>(probes) / static_cast<double>(adds);
                nel = c.getnel();
                filled = c.totalnumberofelements();
            }
            const peak_memory peak_s(baseline);
            const stopwatch ts;
            crs.sort();
            iteration_s += ts.wall_s();
            keep_min(sort_s, ts.wall_s());
            keep_min(sort_cpu, ts.cpu_s());
            peak_sort = std::max(peak_sort, peak_s.mib());
            peak_krel = std::max({peak_krel, peak_add, peak_convert, peak_sort});
            nnz = crs.totalnumberofelements();
            benchmark::DoNotOptimize(crs.nzval().data());
            state.SetIterationTime(iteration_s);
        }

        // The pedigree part as a plain loop of add, for the gain of fetching
        // slots ahead.
        {
            const double g = m.param.ginv[2](1, 1);
            const krel::pedigree_type& p = m.ped[2];
            const stopwatch t;
            krel::coosparse c(neq, std::nullopt, neq, true);
            c.setsymmetric(true);
            for (std::int32_t i = 1; i <= m.nped; ++i) {
                const std::int32_t s = std::max(p.sire(i), 0), d = std::max(p.dam(i), 0);
                const double ms = s < 1 ? 2.0 : 1.0 - p.inb[static_cast<std::size_t>(s)];
                const double md = d < 1 ? 2.0 : 1.0 - p.inb[static_cast<std::size_t>(d)];
                const double dd = 4.0 / (ms + md);
                const std::int32_t member[3] = {i, s, d};
                for (int a = 0; a < 3; ++a)
                    for (int b = 0; b < 3; ++b)
                        if (member[a] >= 1 && member[b] >= 1)
                            c.add(member[a] + 1, member[b] + 1,
                                  g * dd * krel::ainv::tvec[a] * krel::ainv::tvec[b]);
            }
            keep_min(ped_plain_s, t.wall_s());
            benchmark::DoNotOptimize(c.values().data());
        }

        // The same upper triplets, converted by CHOLMOD.
        cholmod_common cc;
        cholmod_l_start(&cc);
        triplets = 0;
        m.for_each_addition([&](std::int32_t, std::int32_t, double) { ++triplets; });
        cholmod_triplet* t = cholmod_l_allocate_triplet(static_cast<std::size_t>(neq), static_cast<std::size_t>(neq),
                                                        static_cast<std::size_t>(triplets), 1, CHOLMOD_REAL, &cc);
        auto* ti = static_cast<SuiteSparse_long*>(t->i);
        auto* tj = static_cast<SuiteSparse_long*>(t->j);
        auto* tx = static_cast<double*>(t->x);
        std::size_t k = 0;
        m.for_each_addition([&](std::int32_t r, std::int32_t col, double v) {
            ti[k] = r - 1;
            tj[k] = col - 1;
            tx[k] = v;
            ++k;
        });
        t->nnz = k;
        {
            const peak_memory peak(resident_kib());
            const stopwatch w;
            cholmod_sparse* a = cholmod_l_triplet_to_sparse(t, 0, &cc);
            keep_min(cholmod_s, w.wall_s());
            keep_min(cholmod_cpu, w.cpu_s());
            peak_cholmod = std::max(peak_cholmod, peak.mib());
            if (a == nullptr) state.SkipWithError("CHOLMOD conversion failed");
            cholmod_l_free_sparse(&a, &cc);
        }
        cholmod_l_free_triplet(&t, &cc);
        cholmod_l_finish(&cc);
    }

    const double krel_s = add_s + convert_s + sort_s;
    const double krel_cpu = add_cpu + convert_cpu + sort_cpu;
    auto& c = state.counters;
    c["neq"] = neq;
    c["ped_s"] = ped_s;
    c["records_s"] = records_s;
    c["add_s"] = add_s;
    c["convert_s"] = convert_s;
    c["sort_s"] = sort_s;
    c["krel_s"] = krel_s;
    c["cholmod_s"] = cholmod_s;
    c["ratio"] = krel_s / cholmod_s;
    c["add_cpu"] = add_cpu;
    c["convert_cpu"] = convert_cpu;
    c["sort_cpu"] = sort_cpu;
    c["cholmod_cpu"] = cholmod_cpu;
    c["ratio_cpu"] = krel_cpu / cholmod_cpu;
    c["ped_plain_s"] = ped_plain_s;
    c["probes_per_key"] = probes_key;
    c["probes_per_add"] = probes_add;
    c["table_initial"] = static_cast<double>(nel0);
    c["table"] = static_cast<double>(nel);
    c["keys"] = static_cast<double>(filled);
    c["triplets"] = static_cast<double>(triplets);
    c["nnz"] = static_cast<double>(nnz);
    c["peak_add_MiB"] = peak_add;
    c["peak_convert_MiB"] = peak_convert;
    c["peak_sort_MiB"] = peak_sort;
    c["peak_krel_MiB"] = peak_krel;
    c["peak_cholmod_MiB"] = peak_cholmod;
}

}  // namespace

int main(int argc, char** argv) {
    const char* env = std::getenv("KREL_BENCH_DATA");
    const fs::path data = env ? fs::path(env) : fs::path(argv[0]).parent_path() / ".." / "bench-data";
    for (const char* name : {"ped1m", "ped3m"}) {
        const fs::path file = data / name / "pedigree.txt";
        if (!fs::exists(file)) continue;
        benchmark::RegisterBenchmark((std::string("lhs_assembly/") + name).c_str(), lhs_assembly, file)
            ->UseManualTime()
            ->Iterations(3)
            ->Unit(benchmark::kMillisecond);
    }
    return krel::bench::run_benchmarks(argc, argv);
}
