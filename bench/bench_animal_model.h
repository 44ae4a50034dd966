#pragma once
// The coefficient matrix of a single-trait animal model, the matrix whose
// inverse diagonal gives exact reliabilities: the inverse relationship
// matrix with inbreeding (Henderson's rules), a record weight on most animals
// and a general mean as equation 1. The pedigree comes from krel-simulate,
// generated once into build/bench-data/pedigree-<n>.
#include <suitesparse/cholmod.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <random>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "inputs/pedigree.h"
#include "sparse/sparse_matrix.h"

namespace krel::bench {

// Standard output swallowed for the lifetime of the object: the progress
// output of the kernels.
class quiet_cout {
public:
    quiet_cout() : old_(std::cout.rdbuf(&sink_)) {}
    ~quiet_cout() { std::cout.rdbuf(old_); }
    quiet_cout(const quiet_cout&) = delete;
    quiet_cout& operator=(const quiet_cout&) = delete;

private:
    class null_buffer : public std::streambuf {
    protected:
        int overflow(int c) override { return c; }
        std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
    };
    null_buffer sink_;
    std::streambuf* old_;
};

// The pedigree of n animals, generated on first use next to the build.
inline std::filesystem::path pedigree_file(std::int32_t n) {
    namespace fs = std::filesystem;
    const fs::path build = fs::canonical("/proc/self/exe").parent_path().parent_path();
    const fs::path dir = build / "bench-data" / ("pedigree-" + std::to_string(n));
    const fs::path file = dir / "pedigree.txt";
    if (!fs::exists(file)) {
        const fs::path simulate = build / "tools" / "krel-simulate";
        const std::string command = simulate.string() + " --out " + dir.string() + " --animals " +
                                    std::to_string(n) + " --genotyped 0 --snps 1 > /dev/null";
        if (std::system(command.c_str()) != 0 || !fs::exists(file))
            throw std::runtime_error("cannot generate " + file.string());
    }
    return file;
}

// Equation 1 is the mean, equation i + 1 animal i; A-inverse with
// inbreeding times 1/g, a record weight on four animals in five. Sorted,
// upper-stored and symmetric.
inline crssparse animal_model(std::int32_t n_animals) {
    pedigree_type ped;
    {
        quiet_cout quiet;
        ped.readpedigree_nomax(pedigree_file(n_animals).string());
        ped.pedfile.reset();  // no .inb cache next to the data
        ped.computeinbreeding_ped();
    }
    const std::int32_t n = ped.nlength();
    const std::int32_t neq = n + 1;
    const double ginv = 1.0 / 0.3;
    coosparse coo(neq, std::nullopt, neq, true);
    coo.setsymmetric(true);
    for (std::int32_t i = 1; i <= n; ++i) {
        const std::int32_t p[2] = {ped.sire(i), ped.dam(i)};
        double d = 1.0;
        for (std::int32_t q : p)
            if (q != 0) d -= 0.25 * (1.0 + ped.inb[static_cast<std::size_t>(q)]);
        const double alpha = ginv / d;
        coo.add(i + 1, i + 1, alpha);
        for (int u = 0; u < 2; ++u) {
            if (p[u] == 0) continue;
            coo.add(std::min(i, p[u]) + 1, std::max(i, p[u]) + 1, -0.5 * alpha);
            for (int v = 0; v < 2; ++v)
                if (p[v] != 0 && p[u] <= p[v]) coo.add(p[u] + 1, p[v] + 1, 0.25 * alpha);
        }
    }
    std::mt19937_64 gen(7);
    std::uniform_real_distribution<double> erc(0.2, 3.0);
    std::bernoulli_distribution recorded(0.8);
    double sum = 0.0;
    for (std::int32_t i = 1; i <= n; ++i) {
        if (!recorded(gen)) continue;
        const double x = erc(gen);
        sum += x;
        coo.add(i + 1, i + 1, x);
        coo.add(1, i + 1, x);
    }
    coo.add(1, 1, sum);
    crssparse crs = convertfromcootocrs(coo);
    crs.sort();
    return crs;
}

// The upper-stored symmetric matrix copied into a CHOLMOD matrix allocated
// by the caller with room for its elements (Int: int for the cholmod_*
// routines, SuiteSparse_long for cholmod_l_*). Rows of the upper triangle are
// the columns of the lower one, so it goes as a lower-stored matrix.
template <class Int>
void copy_to_cholmod(const krel::crssparse& crs, cholmod_sparse& out) {
    const auto ia = crs.rowptr();
    const auto ja = crs.colval();
    const auto a = crs.nzval();
    auto* p = static_cast<Int*>(out.p);
    auto* i = static_cast<Int*>(out.i);
    auto* x = static_cast<double*>(out.x);
    for (std::size_t r = 0; r < ia.size(); ++r) p[r] = ia[r] - 1;
    for (std::size_t k = 0; k < static_cast<std::size_t>(crs.totalnumberofelements()); ++k) {
        i[k] = ja[k] - 1;
        x[k] = a[k];
    }
}

}  // namespace krel::bench
