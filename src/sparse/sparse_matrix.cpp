// The abstract sparse matrix and the conversions between the storage
// classes. The classes themselves live in coo_matrix.cpp, crs_matrix.cpp
// (with crs_solves.cpp and crs_cholesky_tools.cpp) and linked_list_matrix.cpp.
#include "sparse/sparse_matrix.h"

#include <algorithm>
#include <iostream>
#include <limits>

#include "sparse/metis_ordering.h"
#include "sparse/sparse_stream_io.h"
#include "util/error_stop.h"

namespace krel {

// ---------------------------------------------------------------------------
// gen_sparse

void gen_sparse::init(std::string_view name, std::int32_t m, std::int32_t n) {
    namemat = std::string(name.substr(0, 15));
    dim1 = m;
    dim2 = n;
    lsorted = false;
    lsymmetric = false;
    lupperstorage = false;
}

std::ostream& gen_sparse::out() const { return *unlog; }

void gen_sparse::stop(std::string_view message) const { sparse_stop(out(), message); }

std::int32_t gen_sparse::getdim(int k) const {
    if (k == 1) return dim1;
    if (k == 2) return dim2;
    return -1;
}

void gen_sparse::getpermutation32(std::vector<std::int32_t>& array) const {
    if (!perm) stop(" ERROR: The permutation array is not allocated.");
    array = *perm;
}

void gen_sparse::getpermutation64(std::vector<std::int64_t>& array) const {
    if (!perm64) stop(" ERROR: The permutation array (int64) is not allocated.");
    array = *perm64;
}

void gen_sparse::setpermutation32(std::span<const std::int32_t> array) {
    if (array.size() != static_cast<std::size_t>(getdim(1)))
        stop(" ERROR: The permutation array has a wrong size.");
    perm.emplace(array.begin(), array.end());
}

void gen_sparse::setpermutation64(std::span<const std::int64_t> array) {
    if (array.size() != static_cast<std::size_t>(getdim(1)))
        stop(" ERROR: The permutation array (int64) has a wrong size.");
    perm64.emplace(array.begin(), array.end());
}

void gen_sparse::check_mult(char trans, std::int64_t lenx, std::int64_t leny, std::int64_t ncolx,
                            std::int64_t ncoly) const {
    if (trans == 'N' || trans == 'n') {
        if (leny != dim1 || lenx != dim2 || ncolx != ncoly)
            stop("  ERROR (mult): wrong dimensions");
    } else if (trans == 'T' || trans == 't') {
        if (leny != dim2 || lenx != dim1 || ncolx != ncoly)
            stop("  ERROR (mult): wrong dimensions");
    } else {
        stop("  ERROR (mult): wrong transposition");
    }
}

void gen_sparse::setoutputunit(std::ostream* unit) { unlog = unit ? unit : &std::cout; }

void gen_sparse::setsymmetric(std::optional<bool> flag) {
    if (!flag) {
        if (!issquare())
            stop(" ERROR: the sparse matrix is not square and cannot be set to symmetric!");
        lsymmetric = true;
    } else if (*flag) {
        if (!issquare())
            stop(
                " ERROR: the sparse matrix is not square and cannot be set to symmetric as "
                "requested!");
        lsymmetric = true;
    } else {
        lsymmetric = false;
    }
}

void gen_sparse::destroy_gen() {
    perm.reset();
    perm64.reset();
}

std::int64_t gen_sparse::getmem_gen() const {
    std::int64_t mem = 35;
    if (perm) mem += 4 * static_cast<std::int64_t>(perm->size());
    if (perm64) mem += 8 * static_cast<std::int64_t>(perm64->size());
    return mem;
}

void gen_sparse::print_dim() const {
    std::ostream& unit = out();
    unit << " Type of the matrix           : " << namemat << '\n'
         << "  Output unit                 : " << unit_name(unlog) << '\n'
         << "  Dimension of the matrix     : " << dim1 << " x " << dim2 << '\n'
         << "  Number of non-zero elements : " << totalnumberofelements() << '\n'
         << "  Sorted                      : " << logical(lsorted) << '\n'
         << "  Symmetric                   : " << logical(lsymmetric) << '\n'
         << "  Upper storage               : " << logical(lupperstorage) << '\n'
         << "  Permutation array provided  : " << logical(perm || perm64) << '\n';
    print_dim_details(unit);
    unit.flush();
}

void gen_sparse::print_dim_details(std::ostream& unit) const {
    unit << "Undefined sparse matrix\n";
}

void gen_sparse::printtofile(const std::string& file, bool lint) const {
    std::ofstream unit = open_for_writing(file, out());
    print(lint, &unit);
}

void gen_sparse::printsquaretofile(const std::string& file) const {
    std::ofstream unit = open_for_writing(file, out());
    printsquare(&unit);
}

// ---------------------------------------------------------------------------
// Conversions

namespace {

// Number of elements of each row of the table that are not in the row's
// reserved place (the diagonal of a square matrix, the last column of any
// other).
template <class IA>
std::vector<IA> count_rows(const coosparse& coo) {
    const std::int32_t dim1 = coo.getdim(1);
    const std::int32_t dim2 = coo.getdim(2);
    const bool square = dim1 == dim2;
    std::vector<IA> count(static_cast<std::size_t>(std::max(dim1, 0)), 0);
    const std::span<const std::int32_t> ij = coo.ij_table();
    const std::int64_t nel = coo.getnel();
    for (std::int64_t k = 0; k < nel; ++k) {
        const std::int32_t i = ij[static_cast<std::size_t>(2 * k)];
        if (i == 0) continue;
        const std::int32_t j = ij[static_cast<std::size_t>(2 * k + 1)];
        if (j != (square ? i : dim2)) ++count[static_cast<std::size_t>(i - 1)];
    }
    return count;
}

template <class IA>
std::int64_t total_with_reserved(const std::vector<IA>& count) {
    std::int64_t total = static_cast<std::int64_t>(count.size());
    for (IA c : count) total += c;
    return total;
}

// Rows in table order behind their reserved place.
template <class IA>
void scatter_rows(const coosparse& coo, const std::vector<IA>& count, zeroed_array<IA>& ia,
                  zeroed_array<std::int32_t>& ja, zeroed_array<double>& a) {
    const std::int32_t dim1 = coo.getdim(1);
    const std::int32_t dim2 = coo.getdim(2);
    const bool square = dim1 == dim2;
    ia[0] = 1;
    for (std::int32_t i = 1; i <= dim1; ++i) {
        const std::size_t r = static_cast<std::size_t>(i - 1);
        ja[static_cast<std::size_t>(ia[r] - 1)] = square ? i : dim2;
        ia[r + 1] = ia[r] + 1 + count[r];
    }
    std::vector<IA> next(ia.begin(), ia.end() - 1);  // last place taken in each row
    const std::span<const std::int32_t> ij = coo.ij_table();
    const std::span<const double> val = coo.values();
    const std::int64_t nel = coo.getnel();
    for (std::int64_t k = 0; k < nel; ++k) {
        const std::int32_t i = ij[static_cast<std::size_t>(2 * k)];
        if (i <= 0) continue;
        const std::int32_t j = ij[static_cast<std::size_t>(2 * k + 1)];
        const std::size_t r = static_cast<std::size_t>(i - 1);
        if (j == (square ? i : dim2)) {
            a[static_cast<std::size_t>(ia[r] - 1)] = val[static_cast<std::size_t>(k)];
        } else {
            const std::size_t p = static_cast<std::size_t>(next[r]++);  // 1-based next place
            ja[p] = j;
            a[p] = val[static_cast<std::size_t>(k)];
        }
    }
}

constexpr std::int64_t int32_limit = std::numeric_limits<std::int32_t>::max();

}  // namespace

crssparse convertfromcootocrs(const coosparse& coo) {
    if (coo.totalnumberofelements() > int32_limit)
        sparse_stop(coo.out(),
                    " ERROR: impossible conversion due to a too large number of "
                    "non-zero elements");
    const std::vector<std::int32_t> count = count_rows<std::int32_t>(coo);
    const std::int64_t nel = total_with_reserved(count);
    // The reserved places can push a table just below the limit over it.
    if (nel > int32_limit)
        sparse_stop(coo.out(),
                    " ERROR: impossible conversion due to a too large number of "
                    "non-zero elements");
    crssparse crs(coo.dim1, static_cast<std::int32_t>(nel), coo.dim2, coo.lupperstorage, coo.unlog);
    crs.setsymmetric(coo.lsymmetric);
    crs.perm = coo.perm;
    crs.perm64 = coo.perm64;
    scatter_rows(coo, count, crs.ia, crs.ja, crs.a);
    return crs;
}

crssparse64 convertfromcootocrs64(const coosparse& coo) {
    const std::vector<std::int64_t> count = count_rows<std::int64_t>(coo);
    crssparse64 crs(coo.dim1, total_with_reserved(count), coo.dim2, coo.lupperstorage, coo.unlog);
    crs.setsymmetric(coo.lsymmetric);
    crs.perm = coo.perm;
    crs.perm64 = coo.perm64;
    scatter_rows(coo, count, crs.ia, crs.ja, crs.a);
    return crs;
}

namespace {

template <class CRS>
coosparse crs_to_coo(const CRS& crs, std::int32_t dim1, std::int32_t dim2, bool lupper,
                     std::ostream* unlog, bool lsymmetric) {
    coosparse coo(dim1, dim2, crs.totalnumberofelements(), lupper, unlog);
    const auto ia = crs.rowptr();
    const auto ja = crs.colval();
    const auto a = crs.nzval();
    if (!ia.empty()) {
        for (std::int32_t i = 1; i <= dim1; ++i)
            // A row never filled starts at 0 and holds nothing.
            for (auto k = ia[static_cast<std::size_t>(i - 1)];
                 k >= 1 && k < ia[static_cast<std::size_t>(i)]; ++k)
                coo.add(i, ja[static_cast<std::size_t>(k - 1)], a[static_cast<std::size_t>(k - 1)]);
    }
    coo.setsymmetric(lsymmetric);
    return coo;
}

}  // namespace

coosparse convertfromcrstocoo(const crssparse& crs) {
    return crs_to_coo(crs, crs.dim1, crs.dim2, crs.lupperstorage, crs.unlog, crs.lsymmetric);
}

coosparse convertfromcrs64tocoo(const crssparse64& crs) {
    return crs_to_coo(crs, crs.dim1, crs.dim2, crs.lupperstorage, crs.unlog, crs.lsymmetric);
}

llsparse convertfromcootoll(const coosparse& coo) {
    llsparse ll(coo.dim1, coo.dim2, coo.lupperstorage, coo.unlog);
    for (std::int64_t k = 0; k < coo.nel; ++k) {
        const std::int32_t i = coo.ij[static_cast<std::size_t>(2 * k)];
        const std::int32_t j = coo.ij[static_cast<std::size_t>(2 * k + 1)];
        if (i != 0 && j != 0) ll.addinorder(i, j, coo.a[static_cast<std::size_t>(k)]);
    }
    ll.setsymmetric(coo.lsymmetric);
    return ll;
}

llsparse convertfromcrstoll(const crssparse& crs) {
    llsparse ll(crs.dim1, crs.dim2, crs.lupperstorage, crs.unlog);
    if (!crs.ia.empty()) {
        for (std::int32_t i = 1; i <= crs.dim1; ++i)
            for (std::int32_t k = crs.ia[static_cast<std::size_t>(i - 1)];
                 k >= 1 && k < crs.ia[static_cast<std::size_t>(i)]; ++k)
                ll.addinorder(i, crs.ja[static_cast<std::size_t>(k - 1)],
                              crs.a[static_cast<std::size_t>(k - 1)]);
    }
    ll.setsymmetric(crs.lsymmetric);
    return ll;
}

coosparse convertfromlltocoo(const llsparse& ll) {
    coosparse coo(ll.dim1, ll.dim2, ll.totalnumberofelements(), ll.lupperstorage, ll.unlog);
    ll.for_each([&coo](std::int32_t i, std::int32_t j, double v) { coo.add(i, j, v); });
    coo.setsymmetric(ll.lsymmetric);
    return coo;
}

crssparse convertfromlltocrs(const llsparse& ll) {
    const std::int32_t dim1 = ll.dim1;
    const std::int32_t dim2 = ll.dim2;
    const bool square = dim1 == dim2;
    std::vector<std::int64_t> count(static_cast<std::size_t>(std::max(dim1, 0)), 0);
    std::int64_t nel = dim1;
    ll.for_each([&](std::int32_t i, std::int32_t j, double) {
        if (j != (square ? i : dim2)) {
            ++count[static_cast<std::size_t>(i - 1)];
            ++nel;
        }
    });
    if (nel > int32_limit)
        sparse_stop(ll.out(),
                    " ERROR: impossible conversion due a too large number of non-zero "
                    "elements");
    crssparse crs(dim1, static_cast<std::int32_t>(nel), dim2, ll.lupperstorage, ll.unlog);
    crs.setsymmetric(ll.lsymmetric);
    crs.ia[0] = 1;
    for (std::int32_t i = 1; i <= dim1; ++i) {
        const std::size_t r = static_cast<std::size_t>(i - 1);
        crs.ja[static_cast<std::size_t>(crs.ia[r] - 1)] = square ? i : dim2;
        crs.ia[r + 1] = crs.ia[r] + 1 + static_cast<std::int32_t>(count[r]);
    }
    std::vector<std::int32_t> next(crs.ia.begin(), crs.ia.end() - 1);
    ll.for_each([&](std::int32_t i, std::int32_t j, double v) {
        const std::size_t r = static_cast<std::size_t>(i - 1);
        if (j == (square ? i : dim2)) {
            crs.a[static_cast<std::size_t>(crs.ia[r] - 1)] = v;
        } else {
            const std::size_t p = static_cast<std::size_t>(next[r]++);
            crs.ja[p] = j;
            crs.a[p] = v;
        }
    });
    return crs;
}

metisgraph convertfromcrstometisgraph(const crssparse& crs) {
    if (!crs.issquare() || !crs.lupperstorage)
        crs.stop(" ERROR: the CRS matrix must be square and upper triangular stored");
    const std::int32_t n = crs.getdim(1);
    // Both passes run over the off-diagonal elements only, so a row whose
    // diagonal is absent costs nothing but its own edges.
    std::vector<std::int32_t> degree(static_cast<std::size_t>(n), 0);
    std::int64_t nedges = 0;
    auto for_each_edge = [&crs, n](auto&& f) {
        if (crs.ia.empty()) return;
        for (std::int32_t i = 1; i <= n; ++i)
            for (std::int32_t k = crs.ia[static_cast<std::size_t>(i - 1)];
                 k >= 1 && k < crs.ia[static_cast<std::size_t>(i)]; ++k) {
                const std::int32_t j = crs.ja[static_cast<std::size_t>(k - 1)];
                if (j != i && j >= 1 && j <= n) f(i, j);
            }
    };
    for_each_edge([&](std::int32_t i, std::int32_t j) {
        ++degree[static_cast<std::size_t>(i - 1)];
        ++degree[static_cast<std::size_t>(j - 1)];
        ++nedges;
    });
    if (nedges > int32_limit / 2)
        crs.stop(" ERROR: impossible conversion due to a too large number of non-zero elements");
    metisgraph graph(n, static_cast<std::int32_t>(nedges), crs.unlog);
    graph.xadj[0] = 1;
    for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
        graph.xadj[i + 1] = graph.xadj[i] + degree[i];
        degree[i] = 0;
    }
    for_each_edge([&](std::int32_t i, std::int32_t j) {
        const std::size_t r = static_cast<std::size_t>(i - 1);
        const std::size_t c = static_cast<std::size_t>(j - 1);
        graph.adjncy[static_cast<std::size_t>(graph.xadj[r] + degree[r] - 1)] = j;
        graph.adjncy[static_cast<std::size_t>(graph.xadj[c] + degree[c] - 1)] = i;
        ++degree[r];
        ++degree[c];
    });
    return graph;
}

}  // namespace krel
