// Pedigree reading, ordering and inbreeding on generated pedigrees, each
// phase timed once with its peak memory. Run it as
//
//   build/bench/bench_pedigree [--benchmark_filter=...]
//
// after bench/pedigree_sizes.sh has generated the pedigrees into
// build/bench-data (or $KREL_BENCH_DATA). Data sets that are missing are
// skipped. The reference phase `read_bytes` reads the pedigree file once,
// as `cat file > /dev/null` would.
//
// Counters: levels; peak_MiB, the growth of the resident set during the
// phase over what was resident before it (the pedigree itself, for the
// inbreeding phases); B_per_level, the same per level.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bench_main.h"
#include "bench_support.h"
#include "inputs/inbreeding.h"
#include "inputs/pedigree.h"

namespace {

namespace fs = std::filesystem;

using krel::bench::peak_memory;

void report(benchmark::State& state, const peak_memory& peak, std::int64_t levels) {
    state.counters["levels"] = static_cast<double>(levels);
    state.counters["peak_MiB"] = peak.mib();
    state.counters["B_per_level"] = peak.mib() * 1048576.0 / static_cast<double>(std::max<std::int64_t>(levels, 1));
}

struct data_set {
    std::string name;
    fs::path file;
    fs::path metafounders;  // empty without
};

// The pedigree of one data set stays loaded between its benchmarks; with
// metafounders, animals that the file leaves without a parent get one, so
// that every animal traces to metafounders on both sides.
class loaded {
public:
    krel::pedigree_type& get(const data_set& set) {
        if (name_ != set.name) {
            ped_.reset();
            ped_ = std::make_unique<krel::pedigree_type>();
            ped_->readpedigree_nomax(set.file.string());
            if (!set.metafounders.empty()) {
                ped_->readmetarel(set.metafounders.string(), 1);
                const std::int32_t nr = ped_->nreal(), g = ped_->nupg;
                for (std::int32_t i = 1; i <= nr; ++i)
                    for (int k = 1; k <= 2; ++k)
                        if (ped_->ped(k, i) == 0) ped_->ped(k, i) = nr + 1 + (i + k) % g;
            }
            ped_->pedfile.reset();  // no cache file: every run computes
            name_ = set.name;
        }
        return *ped_;
    }

private:
    std::string name_;
    std::unique_ptr<krel::pedigree_type> ped_;
};

// The progress lines of the methods would break up the table.
class quiet_progress {
public:
    quiet_progress() : console_(std::cout.rdbuf(sink_.rdbuf())) {}
    ~quiet_progress() { std::cout.rdbuf(console_); }

private:
    std::ostringstream sink_;
    std::streambuf* console_;
};

loaded& pedigree() {
    static loaded cache;
    return cache;
}

void read_bytes(benchmark::State& state, const data_set& set) {
    std::vector<char> buffer(1 << 22);
    std::int64_t total = 0;
    for (auto _ : state) {
        const int fd = ::open(set.file.c_str(), O_RDONLY);
        ssize_t got;
        while ((got = ::read(fd, buffer.data(), buffer.size())) > 0) total += got;
        ::close(fd);
    }
    state.counters["MB"] = static_cast<double>(total) / 1e6;
}

void read_pedigree(benchmark::State& state, const data_set& set) {
    std::int64_t levels = 0;
    for (auto _ : state) {
        peak_memory peak;
        krel::pedigree_type p;
        p.readpedigree_nomax(set.file.string());
        levels = p.nlength();
        report(state, peak, levels);
    }
}

void order(benchmark::State& state, const data_set& set) {
    const auto& p = pedigree().get(set);
    for (auto _ : state) {
        peak_memory peak;
        std::vector<std::int32_t> order, inverse;
        p.getorder(order, &inverse);
        benchmark::DoNotOptimize(order.data());
        report(state, peak, p.nlength());
    }
}

// The whole of computeinbreeding_ped without a cache file: order, the
// pedigree in positions, the method and the coefficients by level.
void inbreeding(benchmark::State& state, const data_set& set, std::int32_t method) {
    auto& p = pedigree().get(set);
    for (auto _ : state) {
        p.inb.clear();
        p.inb.shrink_to_fit();
        p.inbmethod = method;
        quiet_progress quiet;
        peak_memory peak;
        p.computeinbreeding_ped();
        report(state, peak, p.nlength());
    }
    p.inb = std::vector<double>();
}

// The method alone, on the pedigree in positions.
void method_only(benchmark::State& state, const data_set& set, std::int32_t method) {
    const auto& p = pedigree().get(set);
    const std::int32_t n = p.nlength(), g = p.nupg;
    std::vector<std::int32_t> order, inverse;
    p.getorder(order, &inverse);
    krel::tmpped_type t(n);
    for (std::int32_t q = g + 1; q <= n; ++q) {
        const std::int32_t id = order[q];
        if (p.sire(id)) t(1, q) = inverse[p.sire(id)];
        if (p.dam(id)) t(2, q) = inverse[p.dam(id)];
    }
    std::vector<std::int32_t>().swap(order);
    std::vector<std::int32_t>().swap(inverse);
    for (auto _ : state) {
        std::vector<double> f;
        quiet_progress quiet;
        peak_memory peak;
        if (p.ismeta && method == 1) krel::compute_f_meuwissen_and_luo_meta(t, n, g, p.metarel, f);
        if (p.ismeta && method == 2) krel::compute_f_sargolzaei_etal_meta(t, n, g, p.metarel, f);
        if (!p.ismeta && method == 1) krel::compute_f_meuwissen_and_luo(t, n, g, f);
        if (!p.ismeta && method == 2) krel::compute_f_sargolzaei_etal(t, n, g, f);
        benchmark::DoNotOptimize(f.data());
        report(state, peak, n);
    }
}

void register_set(const data_set& set) {
    auto add = [&](const std::string& phase, auto fn) {
        benchmark::RegisterBenchmark((phase + "/" + set.name).c_str(), fn)
            ->Iterations(1)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    };
    add("read_bytes", [set](benchmark::State& s) { read_bytes(s, set); });
    if (set.metafounders.empty()) {
        add("readpedigree_nomax", [set](benchmark::State& s) { read_pedigree(s, set); });
        add("getorder", [set](benchmark::State& s) { order(s, set); });
    }
    add("inbreeding_meuwissen_luo", [set](benchmark::State& s) { inbreeding(s, set, 1); });
    add("inbreeding_sargolzaei", [set](benchmark::State& s) { inbreeding(s, set, 2); });
    add("method_meuwissen_luo", [set](benchmark::State& s) { method_only(s, set, 1); });
    add("method_sargolzaei", [set](benchmark::State& s) { method_only(s, set, 2); });
}

}  // namespace

int main(int argc, char** argv) {
    // Every large array is mapped and returned on release, so that what one
    // phase frees does not stay resident into the next one's measure.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    const char* env = std::getenv("KREL_BENCH_DATA");
    const fs::path data = env ? fs::path(env) : fs::path(argv[0]).parent_path() / ".." / "bench-data";
    for (const char* name : {"ped1m", "ped1m-meta", "ped3m", "ped10m", "ped10m-meta"}) {
        const fs::path dir = data / name;
        if (!fs::exists(dir / "pedigree.txt")) continue;
        const fs::path meta = dir / "metafounders.txt";
        register_set({name, dir / "pedigree.txt", fs::exists(meta) ? meta : fs::path()});
    }
    return krel::bench::run_benchmarks(argc, argv);
}
