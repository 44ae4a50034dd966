// coosparse: the assembly form of the sparse matrices, a hash table of
// (row, column) keys.
#include <algorithm>
#include <array>
#include <iomanip>
#include <iostream>
#include <utility>

#include "sparse/sparse_matrix.h"
#include "sparse/sparse_stream_io.h"
#include "util/fortran_format.h"

namespace krel {

namespace {

constexpr std::int32_t coo_file_mark = 10;
constexpr std::int64_t default_table_request = 100;

// Product kinds: S symmetric upper-stored, T upper-stored, G general.
char product_kind(bool symmetric, bool upper) {
    if (upper) return symmetric ? 'S' : 'T';
    return 'G';
}

std::string square_entry(double v) {
    std::ostringstream s;
    s << std::setw(12) << realtochar(v, "(es12.4)");
    return s.str();
}

}  // namespace

coosparse::coosparse(std::int32_t m, std::optional<std::int32_t> n,
                     std::optional<std::int64_t> nel_, std::optional<bool> lupper,
                     std::ostream* unlog_) {
    constructor_sub(m, n, nel_, lupper, unlog_);
}

void coosparse::constructor_sub(std::int32_t m, std::optional<std::int32_t> n,
                                std::optional<std::int64_t> nel_, std::optional<bool> lupper,
                                std::ostream* unlog_) {
    destroy();
    init("COO", m, n.value_or(m));
    unlog = unlog_ ? unlog_ : &std::cout;
    lupperstorage = lupper.value_or(false);
    nel = next_power_of_2(nel_.value_or(default_table_request));
    ij = zeroed_array<std::int32_t>(2 * static_cast<std::size_t>(nel));
    a = zeroed_array<double>(static_cast<std::size_t>(nel));
    filled = 0;
}

void coosparse::destroy() {
    ij = {};
    a = {};
    nel = 0;
    filled = 0;
    destroy_gen();
}

double coosparse::get(std::int32_t row, std::int32_t col) const {
    if (lsymmetric && lupperstorage && col < row) std::swap(row, col);
    if (!validvalue(row, col) || nel == 0) return 0.0;
    const std::int64_t slot = hashf_array_getval(row, col, ij, nel);
    return slot >= 1 ? a[static_cast<std::size_t>(slot - 1)] : 0.0;
}

void coosparse::add(std::int32_t row, std::int32_t col, double val) { insert<true>(row, col, val); }

void coosparse::set(std::int32_t row, std::int32_t col, double val) {
    insert<false>(row, col, val);
}

template <bool Accumulate>
void coosparse::insert(std::int32_t row, std::int32_t col, double val) {
    if (!validvalue(row, col)) return;
    if (Accumulate && !validnonzero(val)) return;
    if (lupperstorage && !uppervalue(row, col)) return;
    // A destroyed matrix has no table to take the element.
    if (nel == 0) return;
    hash_probe probe(row, col, nel);
    const std::int64_t first = probe.next();
    // Assembly writes at random into a table far larger than the caches: the
    // value's line is asked for while the key's line is still on its way.
    __builtin_prefetch(&a[static_cast<std::size_t>(first - 1)], 1);
    place<Accumulate>(row, col, val, probe, first);
}

template <bool Accumulate>
void coosparse::place(std::int32_t row, std::int32_t col, double val, hash_probe& probe,
                      std::int64_t first) {
    std::int64_t slot = hashf_array_from(probe, first, 1, row, col, ij.data(), filled, false);
    if (slot == -1 || static_cast<float>(filled) / static_cast<float>(nel) > 0.8f) {
        grow(!Accumulate);
        slot = hashf_array(row, col, ij, nel, filled, false);
    }
    if (slot < 1) stop(" ERROR: unexpected");
    if constexpr (Accumulate)
        a[static_cast<std::size_t>(slot - 1)] += val;
    else
        a[static_cast<std::size_t>(slot - 1)] = val;
}

void coosparse::grow(bool report) {
    const std::int64_t oldnel = nel;
    coosparse larger(dim1, dim2, static_cast<std::int64_t>(static_cast<double>(nel) * 1.5),
                     std::nullopt, unlog);
    // Every slot of the old table goes to larger.add in table order. The
    // keys are all known in advance, so each is mixed a few slots ahead and
    // its first slot fetched early: the scattered writes then overlap
    // instead of waiting one after the other. The order of the insertions,
    // and so the table, is that of plain add calls.
    struct ahead_key {
        hash_probe probe;
        std::int64_t first;
        std::int64_t nel;  // of the table the key was mixed for
    };
    constexpr std::int64_t distance = 16;
    std::array<ahead_key, 2 * distance> ring{};
    auto admitted = [this](std::int64_t k) {
        const std::size_t s = static_cast<std::size_t>(k);
        return validvalue(ij[2 * s], ij[2 * s + 1]) && validnonzero(a[s]);
    };
    auto mix_ahead = [&](std::int64_t k) {
        const std::size_t s = static_cast<std::size_t>(k);
        ahead_key& e = ring[s % ring.size()];
        e.probe = hash_probe(ij[2 * s], ij[2 * s + 1], larger.nel);
        e.first = e.probe.next();
        e.nel = larger.nel;
        __builtin_prefetch(&larger.ij[2 * static_cast<std::size_t>(e.first - 1)], 1);
        __builtin_prefetch(&larger.a[static_cast<std::size_t>(e.first - 1)], 1);
    };
    for (std::int64_t k = 0; k < std::min(distance, oldnel); ++k)
        if (admitted(k)) mix_ahead(k);
    for (std::int64_t k = 0; k < oldnel; ++k) {
        if (k + distance < oldnel && admitted(k + distance)) mix_ahead(k + distance);
        // What add would refuse: empty slots and values below the tolerance.
        if (!admitted(k)) continue;
        const std::size_t s = static_cast<std::size_t>(k);
        ahead_key& e = ring[s % ring.size()];
        if (e.nel != larger.nel) {
            // The larger table grew itself in the meantime: mix again.
            e.probe = hash_probe(ij[2 * s], ij[2 * s + 1], larger.nel);
            e.first = e.probe.next();
        }
        larger.place<true>(ij[2 * s], ij[2 * s + 1], a[s], e.probe, e.first);
    }
    nel = larger.nel;
    filled = larger.filled;
    ij = std::move(larger.ij);
    a = std::move(larger.a);
    larger.destroy();
    if (report) out() << "  Current | New size COO: " << oldnel << " | " << nel << '\n';
}

std::vector<double> coosparse::diag_vect() const {
    const std::int32_t n = std::min(dim1, dim2);
    std::vector<double> d(static_cast<std::size_t>(std::max(n, 0)));
    for (std::int32_t i = 1; i <= n; ++i) d[static_cast<std::size_t>(i - 1)] = get(i, i);
    return d;
}

coosparse coosparse::diag_mat(std::int32_t noff) const {
    const std::int32_t n = std::min(dim1, dim2);
    coosparse d(n, n, n, true, unlog);
    for (std::int32_t i = 1; i <= n; ++i) {
        d.add(i, i, get(i, i));
        // Beyond column n add refuses everything: stop there.
        const std::int64_t last = std::min<std::int64_t>(static_cast<std::int64_t>(i) + noff, n);
        for (std::int64_t j = i + 1; j <= last; ++j) {
            const std::int32_t c = static_cast<std::int32_t>(j);
            d.add(i, c, get(i, c));
        }
    }
    return d;
}

void coosparse::scale(double alpha) {
    for (double& v : a) v *= alpha;
}

std::int64_t coosparse::getmem() const {
    std::int64_t mem = getmem_gen() + 16;
    if (!ij.empty()) mem += 4 * 2 * nel;
    if (!a.empty()) mem += 8 * nel;
    return mem;
}

void coosparse::print_dim_details(std::ostream& unit) const {
    unit << "  Memory (B)                  : " << getmem() << '\n'
         << "  Size of the array           : " << nel << '\n';
}

// ---------------------------------------------------------------------------
// Products

void coosparse::check_mult(char trans, std::int64_t lenx, std::int64_t leny, std::int64_t ncolx,
                           std::int64_t ncoly) const {
    if (lsymmetric && !lupperstorage) {
        print_dim();
        stop("  ERROR (mult): unsupported format");
    }
    gen_sparse::check_mult(trans, lenx, leny, ncolx, ncoly);
}

void coosparse::multgenv(double alpha, char trans, std::span<const double> x, double beta,
                         std::span<double> y) const {
    check_mult(trans, static_cast<std::int64_t>(x.size()), static_cast<std::int64_t>(y.size()), 1,
               1);
    for (double& v : y) v *= beta;
    add_product(alpha, trans, x.data(), 0, y.data(), 0, 1);
}

void coosparse::multgenm(double alpha, char trans, const dmatrix& x, double beta,
                         dmatrix& y) const {
    check_mult(trans, x.rows(), y.rows(), x.cols(), y.cols());
    for (std::size_t k = 0; k < y.size(); ++k) y.data()[k] *= beta;
    add_product(alpha, trans, x.data(), x.ld(), y.data(), y.ld(), y.cols());
}

void coosparse::add_product(double alpha, char trans, const double* x, std::int64_t ldx, double* y,
                            std::int64_t ldy, std::int64_t ncol) const {
    const char kind = product_kind(lsymmetric, lupperstorage);
    const bool transposed = trans == 'T' || trans == 't';
    for (std::int64_t k = 0; k < nel; ++k) {
        const std::size_t s = static_cast<std::size_t>(k);
        const std::int32_t i = ij[2 * s];
        if (i == 0) continue;
        const std::int64_t r = i - 1;
        const std::int64_t c = ij[2 * s + 1] - 1;
        const double v = alpha * a[s];
        for (std::int64_t col = 0; col < ncol; ++col) {
            const double* xc = x + col * ldx;
            double* yc = y + col * ldy;
            if (kind == 'S') {
                yc[r] += v * xc[c];
                if (r != c) yc[c] += v * xc[r];
            } else if (!transposed) {
                yc[r] += v * xc[c];
            } else {
                yc[c] += v * xc[r];
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Submatrices

template <class F>
void coosparse::for_each_full(F&& f) const {
    const bool mirror = lsymmetric && lupperstorage;
    for (std::int64_t k = 0; k < nel; ++k) {
        const std::size_t s = static_cast<std::size_t>(k);
        const std::int32_t i = ij[2 * s];
        const std::int32_t j = ij[2 * s + 1];
        if (i == 0 || j == 0) continue;
        f(i, j, a[s]);
        if (mirror && i != j) f(j, i, a[s]);
    }
}

coosparse coosparse::submatrix(std::int32_t startrow, std::int32_t endrow, std::int32_t startcol,
                               std::int32_t endcol, std::optional<bool> lupper,
                               std::ostream* unlog_) const {
    if (!validvalue(startrow, startcol) || !validvalue(endrow, endcol) || startrow > endrow ||
        startcol > endcol)
        stop(" ERROR: the bounds of the submatrix are not valid");
    auto inside = [=](std::int32_t i, std::int32_t j) {
        return i >= startrow && i <= endrow && j >= startcol && j <= endcol;
    };
    std::int64_t count = 0;
    for_each_full([&](std::int32_t i, std::int32_t j, double) { count += inside(i, j); });
    coosparse sub(endrow - startrow + 1, endcol - startcol + 1, count, lupper, unlog_);
    for_each_full([&](std::int32_t i, std::int32_t j, double v) {
        if (inside(i, j)) sub.add(i - startrow + 1, j - startcol + 1, v);
    });
    if (lsymmetric && sub.lupperstorage && startrow == startcol && endrow == endcol)
        sub.setsymmetric(true);
    return sub;
}

coosparse coosparse::submatrix_index(std::span<const std::int32_t> idx, std::optional<bool> lupper,
                                     std::ostream* unlog_) const {
    for (std::int32_t i : idx)
        if (!validvalue(i, i)) stop(" ERROR: the bounds of the submatrix are not valid");
    const std::int32_t n = static_cast<std::int32_t>(idx.size());
    std::vector<std::int32_t> place(static_cast<std::size_t>(std::max(dim1, dim2)) + 1, 0);
    for (std::int32_t k = 1; k <= n; ++k) place[static_cast<std::size_t>(idx[k - 1])] = k;
    std::int64_t count = 0;
    for_each_full([&](std::int32_t i, std::int32_t j, double) {
        count += place[static_cast<std::size_t>(i)] != 0 && place[static_cast<std::size_t>(j)] != 0;
    });
    coosparse sub(n, n, count, lupper, unlog_);
    for_each_full([&](std::int32_t i, std::int32_t j, double v) {
        const std::int32_t pi = place[static_cast<std::size_t>(i)];
        const std::int32_t pj = place[static_cast<std::size_t>(j)];
        if (pi != 0 && pj != 0) sub.add(pi, pj, v);
    });
    if (lsymmetric && sub.lupperstorage) sub.setsymmetric(true);
    return sub;
}

// ---------------------------------------------------------------------------
// Files and printing

void coosparse::save(const std::string& file) const {
    binary_writer w(file, out());
    w.put(coo_file_mark);
    w.put(dim1);
    w.put(dim2);
    w.put(filled);
    w.put(nel);
    w.put(static_cast<std::int32_t>(lupperstorage ? 1 : 0));
    w.put(std::span<const std::int32_t>(ij));
    w.put(std::span<const double>(a));
    w.close();
}

coosparse coosparse::load(const std::string& file, std::ostream* unlog_) {
    binary_reader r(file, " ERROR: the proposed file is not a COO file");
    if (r.get<std::int32_t>() != coo_file_mark) r.refuse();
    const auto m = r.get<std::int32_t>();
    const auto n = r.get<std::int32_t>();
    const auto filled_ = r.get<std::int64_t>();
    const auto nel_ = r.get<std::int64_t>();
    const bool lupper = r.get<std::int32_t>() != 0;
    if (m < 0 || n < 0 || nel_ < 1 || next_power_of_2(nel_) != nel_ || filled_ < 0 ||
        filled_ > nel_)
        r.refuse();
    r.require(nel_, 2 * 4 + 8);
    coosparse coo(m, n, nel_, lupper, unlog_);
    coo.filled = filled_;
    r.get(std::span<std::int32_t>(coo.ij));
    r.get(std::span<double>(coo.a));
    // Conversions index their rows by the keys: a damaged table must not
    // reach them.
    for (std::size_t k = 0; k < coo.ij.size(); k += 2) {
        const std::int32_t i = coo.ij[k], j = coo.ij[k + 1];
        if (!(i == 0 && j == 0) && !coo.validvalue(i, j)) r.refuse();
    }
    return coo;
}

void coosparse::print(bool lint, std::ostream* output) const {
    std::ostream& unit = output ? *output : out();
    for (std::int64_t k = 0; k < nel; ++k) {
        const std::size_t s = static_cast<std::size_t>(k);
        const std::int32_t i = ij[2 * s];
        const std::int32_t j = ij[2 * s + 1];
        if (lint)
            unit << k + 1 << ' ' << i << ' ' << j << ' ' << realtochar(a[s]) << '\n';
        else if (i != 0 && j != 0)
            unit << i << ' ' << j << ' ' << realtochar(a[s]) << '\n';
    }
    unit.flush();
}

void coosparse::print_idx(std::span<const std::int32_t> lidx, std::ostream* output) const {
    if (static_cast<std::int64_t>(lidx.size()) < std::min(dim1, dim2))
        stop(" ERROR: the vector lidx is smaller than the smallest dimension of COO");
    std::ostream& unit = output ? *output : out();
    auto name = [&lidx](std::int32_t i) {
        return static_cast<std::size_t>(i) <= lidx.size() ? lidx[static_cast<std::size_t>(i - 1)]
                                                          : i;
    };
    for_each_full([&](std::int32_t i, std::int32_t j, double v) {
        if (lsymmetric && lupperstorage && i > j) return;
        unit << name(i) << ' ' << name(j) << ' ' << realtochar(v) << '\n';
    });
    unit.flush();
}

void coosparse::printsquare(std::ostream* output) const {
    std::ostream& unit = output ? *output : out();
    for (std::int32_t i = 1; i <= dim1; ++i) {
        for (std::int32_t j = 1; j <= dim2; ++j) unit << square_entry(get(i, j));
        unit << '\n';
    }
    unit.flush();
}

}  // namespace krel
