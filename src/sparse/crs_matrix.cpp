// crssparse and crssparse64: compressed rows, 1-based, in the three-array
// form that direct solvers and sparse BLAS take.
#include <algorithm>
#include <iomanip>
#include <iostream>
#include <limits>
#include <sstream>
#include <utility>

#include "sparse/direct_solver.h"
#include "sparse/metis_ordering.h"
#include "sparse/sparse_matrix.h"
#include "sparse/sparse_stream_io.h"
#include "util/fortran_format.h"

namespace krel {

namespace {

constexpr std::int32_t crs_file_mark = 20;
constexpr std::int32_t crs64_file_mark = 21;
// Ranges shorter than this are finished by insertion.
constexpr std::int64_t insertion_limit = 21;

// Sorts cols[0..n) ascending and carries vals along. Columns are distinct,
// so stability does not matter. Iterative quicksort: median of three,
// Hoare partition, smaller part on top of the stack so that the stack stays
// logarithmic; short ranges by insertion.
void sort_row(std::int32_t* cols, double* vals, std::int64_t n) {
    auto swap_at = [cols, vals](std::int64_t p, std::int64_t q) {
        std::swap(cols[p], cols[q]);
        std::swap(vals[p], vals[q]);
    };
    struct range {
        std::int64_t lo, hi;
    };
    std::vector<range> stack;
    stack.reserve(64);
    stack.push_back({0, n - 1});
    while (!stack.empty()) {
        const auto [lo, hi] = stack.back();
        stack.pop_back();
        if (hi - lo < insertion_limit) {
            for (std::int64_t k = lo + 1; k <= hi; ++k)
                for (std::int64_t m = k; m > lo && cols[m - 1] > cols[m]; --m) swap_at(m - 1, m);
            continue;
        }
        const std::int64_t mid = (lo + hi) / 2;
        if (cols[mid] < cols[lo]) swap_at(mid, lo);
        if (cols[hi] < cols[lo]) swap_at(hi, lo);
        if (cols[hi] < cols[mid]) swap_at(hi, mid);
        const std::int32_t pivot = cols[mid];
        std::int64_t i = lo - 1;
        std::int64_t j = hi + 1;
        for (;;) {
            do --j;
            while (cols[j] > pivot);
            do ++i;
            while (cols[i] < pivot);
            if (i >= j) break;
            swap_at(i, j);
        }
        const range left{lo, j};
        const range right{j + 1, hi};
        if (j - lo < hi - j) {
            stack.push_back(right);
            stack.push_back(left);
        } else {
            stack.push_back(left);
            stack.push_back(right);
        }
    }
}

std::string square_entry(double v) {
    std::ostringstream s;
    s << std::setw(12) << realtochar(v, "(es12.4)");
    return s.str();
}

}  // namespace

// ---------------------------------------------------------------------------
// What both widths share

template <class IA>
void crs_base<IA>::construct(std::string_view name, std::int32_t m, IA nel,
                             std::optional<std::int32_t> n, std::optional<bool> lupper,
                             std::ostream* unlog_) {
    destroy();
    init(name, m, n.value_or(m));
    unlog = unlog_ ? unlog_ : &std::cout;
    lupperstorage = lupper.value_or(false);
    ia = zeroed_array<IA>(static_cast<std::size_t>(std::max(m, 0)) + 1);
    ja = zeroed_array<std::int32_t>(static_cast<std::size_t>(std::max<IA>(nel, 0)));
    a = zeroed_array<double>(static_cast<std::size_t>(std::max<IA>(nel, 0)));
    // Not yet filled: no row has a start, and the end mark is negative.
    ia.back() = -nel;
    lpardisofirst = true;
    ldecomposed = false;
}

template <class IA>
crs_base<IA>::crs_base() = default;
template <class IA>
crs_base<IA>::~crs_base() = default;
template <class IA>
crs_base<IA>::crs_base(crs_base&&) noexcept = default;
template <class IA>
crs_base<IA>& crs_base<IA>::operator=(crs_base&&) noexcept = default;

template <class IA>
const pardiso_record<IA>& crs_base<IA>::getpardiso() const {
    static const pardiso_record<IA> unused;
    return pardiso ? *pardiso : unused;
}

template <class IA>
crs_base<IA>::crs_base(const crs_base& other)
    : gen_sparse(other),
      ia(other.ia),
      ja(other.ja),
      a(other.a),
      lpardisofirst(true),
      ldecomposed(other.ldecomposed) {}

template <class IA>
crs_base<IA>& crs_base<IA>::operator=(const crs_base& other) {
    if (this == &other) return *this;
    gen_sparse::operator=(other);
    ia = other.ia;
    ja = other.ja;
    a = other.a;
    lpardisofirst = true;
    ldecomposed = other.ldecomposed;
    pardiso.reset();
    return *this;
}

template <class IA>
void crs_base<IA>::destroy() {
    ia = {};
    ja = {};
    a = {};
    destroy_gen();
    // The factor of solve goes with the values it was made of.
    pardiso.reset();
    lpardisofirst = true;
}

template <class IA>
double crs_base<IA>::get(std::int32_t row, std::int32_t col) const {
    if (lsymmetric && lupperstorage && col < row) std::swap(row, col);
    if (!validvalue(row, col) || ia.empty()) return 0.0;
    const IA first = ia[static_cast<std::size_t>(row - 1)];
    if (first < 1) return 0.0;
    for (IA k = first; k < ia[static_cast<std::size_t>(row)]; ++k)
        if (ja[static_cast<std::size_t>(k - 1)] == col) return a[static_cast<std::size_t>(k - 1)];
    return 0.0;
}

template <class IA>
std::int64_t crs_base<IA>::totalnumberofelements() const {
    if (ia.empty()) return -1;
    return static_cast<std::int64_t>(ia[static_cast<std::size_t>(dim1)]) - 1;
}

template <class IA>
template <bool Accumulate>
void crs_base<IA>::update(std::int32_t row, std::int32_t col, double val, std::int32_t* status) {
    if (status) *status = 0;
    if (!validvalue(row, col)) return;
    if (Accumulate && !validnonzero(val)) return;
    if (lupperstorage && !uppervalue(row, col)) return;
    const IA first = ia.empty() ? 0 : ia[static_cast<std::size_t>(row - 1)];
    if (first == 0) {
        if (status) *status = -10;
        return;
    }
    for (IA k = first; k < ia[static_cast<std::size_t>(row)]; ++k) {
        const std::size_t p = static_cast<std::size_t>(k - 1);
        if (ja[p] == col) {
            if constexpr (Accumulate)
                a[p] += val;
            else
                a[p] = val;
            return;
        }
    }
    if (status) *status = -1;
}

template <class IA>
void crs_base<IA>::add(std::int32_t row, std::int32_t col, double val) {
    update<true>(row, col, val, nullptr);
}
template <class IA>
void crs_base<IA>::add(std::int32_t row, std::int32_t col, double val, std::int32_t& status) {
    update<true>(row, col, val, &status);
}
template <class IA>
void crs_base<IA>::set(std::int32_t row, std::int32_t col, double val) {
    update<false>(row, col, val, nullptr);
}
template <class IA>
void crs_base<IA>::set(std::int32_t row, std::int32_t col, double val, std::int32_t& status) {
    update<false>(row, col, val, &status);
}

template <class IA>
void crs_base<IA>::scale(double alpha) {
    for (double& v : a) v *= alpha;
}

template <class IA>
std::int64_t crs_base<IA>::getmem() const {
    return getmem_gen() + 4 + static_cast<std::int64_t>(sizeof(IA) * ia.size()) +
           4 * static_cast<std::int64_t>(ja.size()) + 8 * static_cast<std::int64_t>(a.size());
}

template <class IA>
void crs_base<IA>::sort() {
    if (issorted()) return;
    if (!ia.empty()) {
        for (std::int32_t i = 1; i <= dim1; ++i) {
            const IA lo = ia[static_cast<std::size_t>(i - 1)];
            const IA hi = ia[static_cast<std::size_t>(i)] - 1;
            if (lo < 1 || hi - lo < 1) continue;
            sort_row(&ja[static_cast<std::size_t>(lo - 1)], &a[static_cast<std::size_t>(lo - 1)],
                     static_cast<std::int64_t>(hi - lo + 1));
        }
    }
    setsorted(true);
}

template <class IA>
void crs_base<IA>::print_dim_details(std::ostream& unit) const {
    unit << "  Memory (B)                  : " << getmem() << '\n'
         << "  Original status             : " << logical(lpardisofirst) << '\n';
}

template <class IA>
void crs_base<IA>::print(bool lint, std::ostream* output) const {
    std::ostream& unit = output ? *output : out();
    if (ia.empty()) return;
    if (lint) {
        unit << " ia:";
        for (IA v : ia) unit << ' ' << v;
        unit << "\n ja:";
        for (std::int32_t v : ja) unit << ' ' << v;
        unit << "\n a:";
        for (double v : a) unit << ' ' << realtochar(v);
        unit << '\n';
    } else {
        for (std::int32_t i = 1; i <= dim1; ++i) {
            const IA first = ia[static_cast<std::size_t>(i - 1)];
            if (first < 1) continue;
            for (IA k = first; k < ia[static_cast<std::size_t>(i)]; ++k)
                unit << i << ' ' << ja[static_cast<std::size_t>(k - 1)] << ' '
                     << realtochar(a[static_cast<std::size_t>(k - 1)]) << '\n';
        }
    }
    unit.flush();
}

template <class IA>
void crs_base<IA>::print_idx(std::span<const std::int32_t> lidx, std::ostream* output) const {
    if (static_cast<std::int64_t>(lidx.size()) < std::min(dim1, dim2))
        stop(" ERROR: the vector lidx is smaller than the smallest dimension of CRS");
    std::ostream& unit = output ? *output : out();
    if (ia.empty()) return;
    auto name = [&lidx](std::int32_t i) {
        return static_cast<std::size_t>(i) <= lidx.size() ? lidx[static_cast<std::size_t>(i - 1)]
                                                          : i;
    };
    for (std::int32_t i = 1; i <= dim1; ++i) {
        const IA first = ia[static_cast<std::size_t>(i - 1)];
        if (first < 1) continue;
        for (IA k = first; k < ia[static_cast<std::size_t>(i)]; ++k)
            unit << name(i) << ' ' << name(ja[static_cast<std::size_t>(k - 1)]) << ' '
                 << realtochar(a[static_cast<std::size_t>(k - 1)]) << '\n';
    }
    unit.flush();
}

template <class IA>
void crs_base<IA>::printsquare(std::ostream* output) const {
    std::ostream& unit = output ? *output : out();
    for (std::int32_t i = 1; i <= dim1; ++i) {
        for (std::int32_t j = 1; j <= dim2; ++j) unit << square_entry(get(i, j));
        unit << '\n';
    }
    unit.flush();
}

template <class IA>
void crs_base<IA>::save_impl(const std::string& file, std::int32_t mark) const {
    binary_writer w(file, out());
    w.put(mark);
    w.put(dim1);
    w.put(dim2);
    w.put(totalnumberofelements());
    w.put(static_cast<std::int32_t>(lupperstorage ? 1 : 0));
    w.put(std::span<const IA>(ia));
    w.put(std::span<const std::int32_t>(ja));
    w.put(std::span<const double>(a));
    w.close();
}

template <class IA>
void crs_base<IA>::load_impl(const std::string& file, std::int32_t mark, std::string_view refusal,
                             std::ostream* unlog_) {
    binary_reader r(file, refusal);
    if (r.get<std::int32_t>() != mark) r.refuse();
    const auto m = r.get<std::int32_t>();
    const auto n = r.get<std::int32_t>();
    const auto nel = r.get<std::int64_t>();
    const bool lupper = r.get<std::int32_t>() != 0;
    if (m < 0 || n < 0 || nel < 0 ||
        nel > static_cast<std::int64_t>(std::numeric_limits<IA>::max()))
        r.refuse();
    // Sizes are checked against the file before anything is allocated.
    const std::int64_t ia_bytes =
        (static_cast<std::int64_t>(m) + 1) * static_cast<std::int64_t>(sizeof(IA));
    if (r.remaining() < ia_bytes || (r.remaining() - ia_bytes) / (4 + 8) < nel) r.refuse();
    construct(mark == crs_file_mark ? "CRS" : "CRS64", m, static_cast<IA>(nel), n, lupper, unlog_);
    r.get(std::span<IA>(ia));
    r.get(std::span<std::int32_t>(ja));
    r.get(std::span<double>(a));
    // The arrays index each other: a damaged file must not reach them.
    bool valid = ia.front() == 1 && ia.back() == nel + 1;
    for (std::size_t i = 0; valid && i + 1 < ia.size(); ++i) valid = ia[i] <= ia[i + 1];
    for (std::size_t k = 0; valid && k < ja.size(); ++k) valid = ja[k] >= 1 && ja[k] <= n;
    if (!valid) r.refuse();
}

template class crs_base<std::int32_t>;
template class crs_base<std::int64_t>;

// ---------------------------------------------------------------------------
// crssparse

crssparse::crssparse(std::int32_t m, std::int32_t nel, std::optional<std::int32_t> n,
                     std::optional<bool> lupper, std::ostream* unlog_) {
    constructor_sub(m, nel, n, lupper, unlog_);
}

void crssparse::constructor_sub(std::int32_t m, std::int32_t nel, std::optional<std::int32_t> n,
                                std::optional<bool> lupper, std::ostream* unlog_) {
    construct("CRS", m, nel, n, lupper, unlog_);
    lldlt = false;
}

crssparse crssparse::load(const std::string& file, std::ostream* unlog_) {
    crssparse crs;
    crs.load_impl(file, crs_file_mark, " ERROR: the proposed file is not a CRS file", unlog_);
    return crs;
}

void crssparse::save(const std::string& file) const { save_impl(file, crs_file_mark); }

std::vector<double> crssparse::diag_vect() const {
    const std::int32_t n = std::min(dim1, dim2);
    std::vector<double> d(static_cast<std::size_t>(std::max(n, 0)));
    const gen_sparse& self = *this;
    for (std::int32_t i = 1; i <= n; ++i) d[static_cast<std::size_t>(i - 1)] = self.get(i, i);
    return d;
}

crssparse crssparse::diag_mat(std::int32_t noff) const {
    const std::int32_t n = std::min(dim1, dim2);
    // Element k of row i goes to the band when it lies right of the diagonal
    // and at most noff places from it; the diagonal always takes the first
    // place, stored even when absent, as every conversion does.
    auto in_band = [n, noff](std::int32_t i, std::int32_t j) {
        return j > i && j <= n && static_cast<std::int64_t>(j) - i <= noff;
    };
    const bool filled = !ia.empty() && ia.back() >= 1;
    std::int64_t nel = n;
    if (filled)
        for (std::int32_t i = 1; i <= n; ++i)
            for (std::int32_t k = ia[static_cast<std::size_t>(i - 1)];
                 k >= 1 && k < ia[static_cast<std::size_t>(i)]; ++k)
                nel += in_band(i, ja[static_cast<std::size_t>(k - 1)]);
    crssparse d(n, static_cast<std::int32_t>(nel), n, true, unlog);
    d.ia[0] = 1;
    for (std::int32_t i = 1; i <= n; ++i) {
        const std::size_t r = static_cast<std::size_t>(i - 1);
        std::int32_t next = d.ia[r];
        d.ja[static_cast<std::size_t>(next - 1)] = i;
        if (filled)
            for (std::int32_t k = ia[r]; k >= 1 && k < ia[r + 1]; ++k) {
                const std::int32_t j = ja[static_cast<std::size_t>(k - 1)];
                const double v = a[static_cast<std::size_t>(k - 1)];
                if (j == i) {
                    d.a[static_cast<std::size_t>(d.ia[r] - 1)] = v;
                } else if (in_band(i, j)) {
                    ++next;
                    d.ja[static_cast<std::size_t>(next - 1)] = j;
                    d.a[static_cast<std::size_t>(next - 1)] = v;
                }
            }
        d.ia[r + 1] = next + 1;
    }
    d.setsorted(issorted());
    return d;
}

void crssparse::external(std::span<const std::int32_t> ia_, std::span<const std::int32_t> ja_,
                         std::span<const double> a_) {
    if (ia_.size() != ia.size()) stop(" ERROR: The provided array ia is of a different size!");
    if (ja_.size() != ja.size()) stop(" ERROR: The provided array ja is of a different size!");
    if (a_.size() != a.size()) stop(" ERROR: The provided array a is of a different size!");
    std::copy(ia_.begin(), ia_.end(), ia.begin());
    std::copy(ja_.begin(), ja_.end(), ja.begin());
    std::copy(a_.begin(), a_.end(), a.begin());
}

void crssparse::getordering(std::vector<std::int32_t>& perm_out) const {
    getordering(perm_out, ordering_options{});
}

void crssparse::getordering(std::vector<std::int32_t>& perm_out,
                            const ordering_options& options) const {
    metisgraph graph = convertfromcrstometisgraph(*this);
    const metis_options_array values = metis_ordering_options(getdim(1), options, unlog);
    metis_nodend(graph, values, perm_out);
}

crssparse crssparse::submatrix(std::int32_t startrow, std::int32_t endrow, std::int32_t startcol,
                               std::int32_t endcol, std::optional<bool> lupper,
                               std::ostream* unlog_) const {
    coosparse sub =
        convertfromcrstocoo(*this).submatrix(startrow, endrow, startcol, endcol, lupper, unlog_);
    crssparse crs = convertfromcootocrs(sub);
    if (issorted()) crs.sort();
    return crs;
}

// ---------------------------------------------------------------------------
// Products: y = alpha op(A) x + beta y, with the matrix read as the sparse
// BLAS reads its descriptor: G general; T upper triangular (elements left of
// the diagonal are not read); S symmetric from its upper triangle, where
// trans plays no part.

char crssparse::kind() const {
    if (lsymmetric && !lupperstorage) {
        print_dim();
        stop("  ERROR (multbyv): unsupported format");
    }
    if (lupperstorage) return lsymmetric ? 'S' : 'T';
    return 'G';
}

namespace {

// One right-hand side; x and y are 0-based.
void crs_product(char kind, bool transposed, std::int32_t dim1, std::span<const std::int32_t> ia,
                 std::span<const std::int32_t> ja, std::span<const double> a, double alpha,
                 const double* x, double beta, double* y, std::int64_t leny) {
    for (std::int64_t k = 0; k < leny; ++k) y[k] *= beta;
    if (ia.empty() || ia.back() < 1) return;
    // 0-based range of row i; a row never filled is empty.
    auto row = [&](std::int32_t i) {
        const std::int32_t lo = ia[static_cast<std::size_t>(i)] - 1;
        return lo < 0 ? std::pair<std::int32_t, std::int32_t>(0, 0)
                      : std::pair<std::int32_t, std::int32_t>(
                            lo, ia[static_cast<std::size_t>(i) + 1] - 1);
    };
    if (kind == 'S') {
        for (std::int32_t i = 0; i < dim1; ++i) {
            const auto [lo, hi] = row(i);
            double sum = 0.0;
            const double xi = alpha * x[i];
            for (std::int32_t k = lo; k < hi; ++k) {
                const std::int32_t j = ja[static_cast<std::size_t>(k)] - 1;
                const double v = a[static_cast<std::size_t>(k)];
                if (j < i) continue;
                sum += v * x[j];
                if (j != i) y[j] += v * xi;
            }
            y[i] += alpha * sum;
        }
        return;
    }
    const bool triangular = kind == 'T';
    if (!transposed) {
        // Rows are independent: the parallel loop adds in the same order as
        // a serial one.
#pragma omp parallel for schedule(static) if (dim1 > 50000)
        for (std::int32_t i = 0; i < dim1; ++i) {
            const auto [lo, hi] = row(i);
            double sum = 0.0;
            for (std::int32_t k = lo; k < hi; ++k) {
                const std::int32_t j = ja[static_cast<std::size_t>(k)] - 1;
                if (triangular && j < i) continue;
                sum += a[static_cast<std::size_t>(k)] * x[j];
            }
            y[i] += alpha * sum;
        }
    } else {
        for (std::int32_t i = 0; i < dim1; ++i) {
            const auto [lo, hi] = row(i);
            const double xi = alpha * x[i];
            for (std::int32_t k = lo; k < hi; ++k) {
                const std::int32_t j = ja[static_cast<std::size_t>(k)] - 1;
                if (triangular && j < i) continue;
                y[j] += a[static_cast<std::size_t>(k)] * xi;
            }
        }
    }
}

}  // namespace

void crssparse::multgenv(double alpha, char trans, std::span<const double> x, double beta,
                         std::span<double> y) const {
    const char k = kind();
    check_mult(trans, static_cast<std::int64_t>(x.size()), static_cast<std::int64_t>(y.size()), 1,
               1);
    crs_product(k, trans == 'T' || trans == 't', dim1, ia, ja, a, alpha, x.data(), beta, y.data(),
                static_cast<std::int64_t>(y.size()));
}

void crssparse::multgenm(double alpha, char trans, const dmatrix& x, double beta,
                         dmatrix& y) const {
    const char k = kind();
    check_mult(trans, x.rows(), y.rows(), x.cols(), y.cols());
    for (dmatrix::index_type c = 1; c <= y.cols(); ++c)
        crs_product(k, trans == 'T' || trans == 't', dim1, ia, ja, a, alpha, x.column(c), beta,
                    y.column(c), y.rows());
}

// ---------------------------------------------------------------------------
// crssparse64

crssparse64::crssparse64(std::int32_t m, std::int64_t nel, std::optional<std::int32_t> n,
                         std::optional<bool> lupper, std::ostream* unlog_) {
    constructor_sub(m, nel, n, lupper, unlog_);
}

void crssparse64::constructor_sub(std::int32_t m, std::int64_t nel, std::optional<std::int32_t> n,
                                  std::optional<bool> lupper, std::ostream* unlog_) {
    construct("CRS64", m, nel, n, lupper, unlog_);
}

crssparse64 crssparse64::load(const std::string& file, std::ostream* unlog_) {
    crssparse64 crs;
    crs.load_impl(file, crs64_file_mark, " ERROR: the proposed file is not a CRS64 file", unlog_);
    return crs;
}

void crssparse64::save(const std::string& file) const { save_impl(file, crs64_file_mark); }

void crssparse64::multgenv(double, char, std::span<const double> x, double,
                           std::span<double> y) const {
    out() << " Warning: mult not supported by crssparse64! Array returned = x\n";
    std::copy_n(x.begin(), std::min(x.size(), y.size()), y.begin());
}

void crssparse64::multgenm(double, char, const dmatrix& x, double, dmatrix& y) const {
    out() << " Warning: mult not supported by crssparse64! Array returned = x\n";
    y = x;
}

}  // namespace krel
