// Accuracy and speed of the Tier and Meyer approximation of the inverse
// left-hand side, against the exact inverse of the same animal model
// (mean and animal effect, A-inverse with inbreeding), formed densely.
//
//   build/bench/bench_tiermeyer [--benchmark_filter=...]
//
// The data set (5,000 animals, 1,000 genotyped) is generated once into
// build/bench-data/tm5k. The weights are the ERC that the reversal gives for
// the pedigree reliabilities of the set, as in Step 4 of a run. Counters:
// correlation, regression slope (exact on approximate), mean and largest
// absolute difference of the reliabilities, over all real animals.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_main.h"
#include "engine/reverse_reliabilities.h"
#include "engine/tier_meyer.h"
#include "util/dense_linear_algebra.h"
#include "util/logger.h"

namespace {

namespace fs = std::filesystem;

fs::path data_dir;

struct model {
    krel::reverse_type rev;
    double g = 0.0, r = 0.0;
    std::vector<double> w;  // weights by level
};

model& loaded() {
    static model x;
    static bool ready = false;
    if (!ready) {
        ready = true;
        if (!fs::exists(data_dir / "pedigree.txt")) {
            const fs::path sim = fs::path(data_dir).parent_path().parent_path() / "tools" / "krel-simulate";
            const std::string cmd = sim.string() + " --out " + data_dir.string() +
                                    " --animals 5000 --genotyped 1000 --snps 100 --seed 5 > /dev/null";
            if (std::system(cmd.c_str()) != 0) std::abort();
        }
        const auto old = fs::current_path();
        fs::current_path(data_dir);
        x.rev.init_reverse("pedigree.txt", "genetic_vcv.txt", "none", "heritability.txt", "pev.txt", "none", 1);
        x.rev.write_files = false;
        x.rev.compute_reverse();
        fs::current_path(old);
        x.g = x.rev.gvar[1](1, 1);
        x.r = x.rev.rmat[1](1, 1);
        const std::int32_t n = x.rev.ped.nlength();
        x.w.assign(static_cast<std::size_t>(n) + 1, 0.0);
        for (std::int32_t i = 1; i <= n; ++i) x.w[i] = x.rev.erc(1, i);
    }
    return x;
}

// Diagonal of the exact inverse for the animals, by a dense inverse.
std::vector<double> exact(const model& m) {
    const auto& p = m.rev.ped;
    const std::int32_t n = p.nlength(), last = p.nreal();
    const double gi = 1.0 / m.g, ri = 1.0 / m.r;
    krel::dmatrix lhs(n + 1, n + 1);
    for (std::int32_t i = 1; i <= n; ++i) {
        lhs(i, i) += m.w[i] * ri;
        lhs(i, n + 1) += m.w[i] * ri;
        lhs(n + 1, i) += m.w[i] * ri;
        lhs(n + 1, n + 1) += m.w[i] * ri;
    }
    auto valid = [&](std::int32_t x) { return x >= 1 && x <= last; };
    for (std::int32_t i = 1; i <= last; ++i) {
        const std::int32_t s = p.sire(i), d = p.dam(i);
        double delta = 1.0;
        if (valid(s) && valid(d))
            delta = 1.0 / (0.5 - 0.25 * (p.inb[s] + p.inb[d]));
        else if (valid(s) || valid(d))
            delta = 1.0 / (0.75 - 0.25 * p.inb[valid(s) ? s : d]);
        const std::int32_t ids[3] = {i, valid(s) ? s : 0, valid(d) ? d : 0};
        const double coef[3] = {1.0, -0.5, -0.5};
        for (int a = 0; a < 3; ++a)
            for (int b = 0; b < 3; ++b)
                if (ids[a] && ids[b]) lhs(ids[a], ids[b]) += delta * coef[a] * coef[b] * gi;
    }
    // Groups carry no equation of their own here: give them the prior only.
    for (std::int32_t i = last + 1; i <= n; ++i) lhs(i, i) += gi;
    krel::invsym(lhs);
    std::vector<double> d(static_cast<std::size_t>(n) + 1);
    for (std::int32_t i = 1; i <= n; ++i) d[i] = lhs(i, i);
    return d;
}

void bm_accuracy(benchmark::State& state) {
    auto& m = loaded();
    const auto& p = m.rev.ped;
    const std::vector<double> ex = exact(m);
    std::vector<double> approx;
    for (auto _ : state) krel::tiermeyer(p, m.rev.order, p.inb, 1.0 / m.g, 1.0 / m.r, m.w, approx);
    double sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0, sad = 0, mad = 0;
    const std::int32_t n = p.nreal();
    for (std::int32_t i = 1; i <= n; ++i) {
        const double v = m.g * (1.0 + p.inb[i]);
        const double x = 1.0 - approx[i] / v, y = 1.0 - ex[i] / v;
        sx += x;
        sy += y;
        sxx += x * x;
        syy += y * y;
        sxy += x * y;
        sad += std::abs(x - y);
        mad = std::max(mad, std::abs(x - y));
    }
    const double cxy = sxy - sx * sy / n, cxx = sxx - sx * sx / n, cyy = syy - sy * sy / n;
    state.counters["correlation"] = cxy / std::sqrt(cxx * cyy);
    state.counters["slope"] = cxy / cxx;
    state.counters["mean_abs_diff"] = sad / n;
    state.counters["max_abs_diff"] = mad;
    state.counters["mean_rel_exact"] = sy / n;
    state.counters["mean_rel_approx"] = sx / n;
}
BENCHMARK(bm_accuracy)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    const char* env = std::getenv("KREL_BENCH_DATA");
    data_dir = (env ? fs::path(env) : fs::absolute(fs::path(argv[0])).parent_path().parent_path() / "bench-data") / "tm5k";
    return krel::bench::run_benchmarks(argc, argv);
}
