// Supernodes, the supernodal Cholesky factorisation, the supernodal selected
// inversion and the tolerant triangular solve.
//
// Both numeric phases work on dense blocks: W, the diagonal block of a run of
// columns, and B, its rows below the run, in the order of an ascending list
// of those rows. The list is found with the array mark, which maps a row to
// its place in the list and is cleared after every block.
//
// The unit of work is a node, or a run of consecutive nodes merged into one
// block. Every block must hand its update to (and, in the inversion, read the
// known inverse from) the columns of all pairs of its rows, and on a pedigree
// that traffic dwarfs the arithmetic: a chain of narrow nodes under the last
// separators, each with thousands of rows, would repeat it for every node.
// Merged, the chain pays it once and the zeros it adds ride along in BLAS 3.
// Merging does not change the result beyond the order of additions, since a
// dense block keeps the structural zeros of its columns exactly zero. Where
// a pivot of a merged block comes out at the working zero (or DPOTRF fails
// on it), the block is worked node by node as if it had never been merged,
// so that singular columns are dropped exactly where the nodes drop them.
//
// The places of a block's rows in the columns of those rows come from a
// relative index: columns of one node mostly share their subscripts, so the
// rows are found once by a galloping search in the first column of such a
// group, and every other column of the group takes them by arithmetic.
//
// LAPACK and the small products run on one BLAS thread: threaded, a
// factorisation or a triangular inverse of a few thousand columns was seen
// to take up to a hundred times longer as soon as another process held a
// core. So a wide block reaches LAPACK a diagonal panel at a time, and the
// rest of its work is done by products; the large products measure which
// thread count serves them better (see blas_threads).
#include "sparse/supernodal_kernels.h"

#include <omp.h>
#include <sys/mman.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <iostream>
#include <new>
#include <utility>
#include <vector>

#include <cblas.h>
#include <lapack.h>

#include "util/error_stop.h"
#include "util/fortran_format.h"

namespace krel {

namespace {

using idx = std::int64_t;

std::size_t at(std::int64_t one_based) { return static_cast<std::size_t>(one_based - 1); }

// Columns of C, or of the known inverse S, handled at once: no block of the
// order of the row list squared is ever held.
constexpr idx panel_width = 256;

// Multiply-adds from which a product may use every BLAS thread.
constexpr double parallel_min_work = 2.0e8;

// Merging: the estimated cost of a block in nanoseconds, both phases
// together (a multiply-add in BLAS 3, a pair of rows found and updated, an
// element gathered or scattered, the fixed cost of a block), and the most
// that the blocks of a unit may hold, in elements.
constexpr double cost_per_flop = 0.03;
constexpr double cost_per_pair = 2.0;
constexpr double cost_per_entry = 2.0;
constexpr double cost_per_block = 2000.0;
constexpr double block_max_elements = 3.2e7;

// What the blocks of one unit may hold at once, in elements: a quarter of
// the factor (but never below half a megabyte), and block_max_elements. A
// merged block stays within it, and a node whose blocks with all of T would
// not fit works T in panels of rows, so that the blocks add little to the
// peak memory beside the factor.
double block_budget(std::size_t factor_elements) {
    return std::min(block_max_elements,
                    std::max(65536.0, static_cast<double>(factor_elements) / 4.0));
}

// Elements of W, B and T with a panel of S, for a unit of nb columns and nu
// rows below.
double unit_elements(double nb, double nu) {
    return nb * nb + 2.0 * nb * nu + nu * std::min<double>(nu, panel_width);
}

double block_cost(double nb, double nu) {
    const double flops = (2.0 / 3.0) * nb * nb * nb + 2.0 * nu * nb * nb + 1.5 * nu * nu * nb;
    return cost_per_flop * flops + cost_per_pair * 0.5 * nu * (nu + 1.0) +
           cost_per_entry * nb * (nb + nu) + cost_per_block;
}

// Storage of a dense block, zero when it is handed out. A large block is
// mapped from the system and unmapped when the next one is asked for or the
// work is done: through the heap, freed blocks of some megabytes would stay
// with the process and pile up in its resident memory.
class block_buffer {
public:
    block_buffer() = default;
    block_buffer(const block_buffer&) = delete;
    block_buffer& operator=(const block_buffer&) = delete;
    ~block_buffer() { unmap(); }

    // n elements, all zero; the former contents are gone. Throws
    // std::bad_alloc when the memory cannot be had.
    double* zeroed(std::size_t n) {
        unmap();
        if (n * sizeof(double) >= mapped_min_bytes) {
            void* p = mmap(nullptr, n * sizeof(double), PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (p == MAP_FAILED) throw std::bad_alloc();
            data_ = static_cast<double*>(p);
            mapped_ = true;
        } else {
            small_.assign(n, 0.0);
            data_ = small_.data();
        }
        size_ = n;
        return data_;
    }
    // Gives a mapped block back to the system.
    void release() {
        if (mapped_) unmap();
    }
    double* data() { return data_; }
    const double* data() const { return data_; }
    std::size_t size() const { return size_; }
    double& operator[](std::size_t k) {
        assert(k < size_);
        return data_[k];
    }
    double operator[](std::size_t k) const {
        assert(k < size_);
        return data_[k];
    }

private:
    static constexpr std::size_t mapped_min_bytes = std::size_t{1} << 20;

    void unmap() {
        if (mapped_) munmap(data_, size_ * sizeof(double));
        mapped_ = false;
        data_ = nullptr;
        size_ = 0;
    }

    std::vector<double> small_;
    double* data_ = nullptr;
    std::size_t size_ = 0;
    bool mapped_ = false;
};

// The columns of the factor, read through the 0-based arrays.
struct factor_columns {
    const std::int32_t* xlnz;
    double* xspars;
    const std::int32_t* xnzsub;
    const std::int32_t* nzsub;
    double* diag;

    std::int32_t length(std::int32_t j) const { return xlnz[j] - xlnz[j - 1]; }
    // Place (0-based) in nzsub of the first subscript of column j.
    idx first_subscript(std::int32_t j) const { return static_cast<idx>(xnzsub[j - 1]) - 1; }
    // Subscripts and values of column j; only valid for a column that has
    // positions.
    const std::int32_t* subscripts(std::int32_t j) const { return nzsub + first_subscript(j); }
    double* values(std::int32_t j) const { return xspars + (static_cast<idx>(xlnz[j - 1]) - 1); }
};

// The number of BLAS threads. LAPACK and small products run on one. For the
// large products the better count depends on what else the machine runs: two
// threads double the speed on an idle machine, and lose a fifth or more when
// another process takes a core. So it is measured: the large products of a
// block come as a run of similar panels; in a long enough run the second
// panel is timed on the other count and the third on the count that did
// better last, and the faster serves the rest of the run and the runs too
// short to be measured. The caller's setting is restored at the end (OpenBLAS's OpenMP
// build sets OpenMP's count together with its own).
class blas_threads {
public:
    blas_threads()
        : omp_max_(omp_get_max_threads()),
          blas_max_(openblas_get_num_threads()),
          current_(blas_max_),
          preferred_(blas_max_) {
        serial();
    }
    ~blas_threads() {
        set(blas_max_);
        omp_set_num_threads(omp_max_);
    }
    blas_threads(const blas_threads&) = delete;
    blas_threads& operator=(const blas_threads&) = delete;

    void serial() { set(1); }
    // A product outside a run: the count that did better last.
    void product(double work) { set(blas_max_ > 1 && work >= parallel_min_work ? preferred_ : 1); }
    // A run of panels products; only a run of some length is worth the
    // comparison, which spends one panel on the slower count.
    void start_run(idx panels) { calls_ = panels >= min_compared_run ? 0 : compared; }
    // Around each product of a run, of work multiply-adds.
    void before(double work) {
        large_ = blas_max_ > 1 && work >= parallel_min_work;
        if (!large_) {
            set(1);
            return;
        }
        // The first panel warms the caches and is not timed; the second runs
        // on the other count, the third on the preferred one.
        set(calls_ == 1 ? (preferred_ == 1 ? blas_max_ : 1) : preferred_);
        work_ = work;
        start_ = omp_get_wtime();
    }
    void after() {
        if (!large_ || calls_ >= compared) return;
        if (calls_ > 0) rate_[calls_ - 1] = work_ / std::max(omp_get_wtime() - start_, 1e-9);
        if (++calls_ == compared && rate_[0] > rate_[1]) preferred_ = current_ == 1 ? blas_max_ : 1;
    }

private:
    void set(int want) {
        if (want == current_) return;
        openblas_set_num_threads(want);
        current_ = want;
    }

    int omp_max_;
    int blas_max_;
    int current_;
    int preferred_;
    static constexpr idx min_compared_run = 6;
    static constexpr int compared = 3;  // panels spent on a comparison
    int calls_ = 0;  // large products of the run so far, while comparing
    bool large_ = false;
    double work_ = 0.0;
    double start_ = 0.0;
    double rate_[2] = {0.0, 0.0};
};

// The first place from p on (sub[p] < q on entry) where sub is not below q,
// or len: a galloping search, cheap both for a near and for a far target.
inline std::int32_t gallop(const std::int32_t* sub, std::int32_t p, std::int32_t len,
                           std::int32_t q) {
    std::int32_t k = 1;
    while (p + k < len && sub[p + k] < q) k *= 2;
    const std::int32_t lo = p + k / 2 + 1;
    const std::int32_t hi = std::min(p + k + 1, len);
    return static_cast<std::int32_t>(std::lower_bound(sub + lo, sub + hi, q) - sub);
}

// For row list[i] of a block (list ascending): f(m, k) for every m from m_lo
// to m_hi - 1 whose row list[m] is a subscript of column list[i], at place k
// (0-based) of xspars.
template <class F>
void for_rows_in(const factor_columns& c, const std::int32_t* list, std::int32_t i,
                 std::int32_t m_lo, std::int32_t m_hi, F&& f) {
    const std::int32_t r = list[i];
    const std::int32_t len = c.length(r);
    if (len == 0 || m_lo >= m_hi) return;
    const std::int32_t* sub = c.subscripts(r);
    const idx base = static_cast<idx>(c.xlnz[r - 1]) - 1;
    std::int32_t p = static_cast<std::int32_t>(std::lower_bound(sub, sub + len, list[m_lo]) - sub);
    for (std::int32_t m = m_lo; m < m_hi && p < len; ++m) {
        const std::int32_t q = list[m];
        if (sub[p] < q) {
            p = gallop(sub, p, len, q);
            if (p >= len) return;
        }
        if (sub[p] == q) {
            f(m, base + p);
            ++p;
        }
    }
}

// For row list[i] of a block (list ascending): f(m, k) for every m > i whose
// row list[m] is a subscript of column list[i], at place k (0-based) of
// xspars. The rows are placed in an anchor column by a galloping search;
// a later column whose subscripts lie inside the anchor's stretch of nzsub
// finds them there by arithmetic.
class pair_finder {
public:
    void reset(std::int32_t nu) {
        rel_.resize(static_cast<std::size_t>(nu));
        from_ = -1;
    }

    template <class F>
    void for_row(const factor_columns& c, const std::int32_t* list, std::int32_t nu,
                 std::int32_t i, F&& f) {
        const std::int32_t r = list[i];
        const std::int32_t len = c.length(r);
        if (len == 0) return;
        const idx x0 = c.first_subscript(r);
        const idx x1 = x0 + len;
        if (from_ < 0 || from_ >= i || x0 < lo_ || x1 > hi_) anchor(c, list, nu, i, x0, len);
        const idx base = static_cast<idx>(c.xlnz[r - 1]) - 1 - x0;
        for (std::int32_t m = i + 1; m < end_; ++m) {
            const idx x = rel_[static_cast<std::size_t>(m)];
            if (x < x0) continue;
            if (x >= x1) break;
            f(m, base + x);
        }
    }

private:
    void anchor(const factor_columns& c, const std::int32_t* list, std::int32_t nu,
                std::int32_t i, idx x0, std::int32_t len) {
        lo_ = x0;
        hi_ = x0 + len;
        from_ = i;
        const std::int32_t* sub = c.nzsub + x0;
        std::int32_t p = 0;
        std::int32_t m = i + 1;
        for (; m < nu && p < len; ++m) {
            const std::int32_t q = list[m];
            if (sub[p] < q) {
                p = gallop(sub, p, len, q);
                if (p >= len) break;
            }
            if (sub[p] == q) {
                rel_[static_cast<std::size_t>(m)] = x0 + p;
                ++p;
            } else {
                rel_[static_cast<std::size_t>(m)] = -1;
            }
        }
        end_ = m;
    }

    std::vector<idx> rel_;    // place in nzsub of list[m] in the anchor, or -1
    idx lo_ = 0, hi_ = 0;     // the anchor's stretch of nzsub
    std::int32_t from_ = -1;  // the anchor's place in the list
    std::int32_t end_ = 0;    // rel_ holds the m from from_ + 1 to end_ - 1
};

// The runs of consecutive nodes that are worked as one block: (first column,
// last column), ascending; runs of a single node are not listed. nodes is
// inode, 0-based.
//
// A block grows toward its parent, the column that its first row below
// names: the block and every node up to and including the parent's node
// become one when the estimated cost of the merged block is below the sum of
// their separate costs and the merged block stays within max_elements. The
// nodes in between are mostly small branches whose rows the block holds
// already; without them a chain of separators never becomes one block.
std::vector<std::pair<std::int32_t, std::int32_t>> merged_blocks(const factor_columns& c,
                                                                 std::int32_t neqns,
                                                                 std::int32_t nnode,
                                                                 const std::int32_t* nodes,
                                                                 double max_elements) {
    constexpr std::int32_t max_between = 64;  // nodes between a block and its parent
    std::vector<std::pair<std::int32_t, std::int32_t>> blocks;
    if (nnode < 2) return blocks;
    std::vector<std::int32_t> stamp(static_cast<std::size_t>(neqns), 0);
    std::int32_t current_stamp = 0;
    auto first_of = [nodes](std::int32_t s) { return nodes[s] + 1; };
    auto last_of = [nodes](std::int32_t s) { return nodes[s - 1]; };
    // The rows below a node: the subscripts of its last column when the
    // diagonal block is dense (each column's structure then lies in the
    // next one's), else the union over its columns.
    auto node_rows = [&](std::int32_t s, std::vector<std::int32_t>& rows) {
        const std::int32_t f = first_of(s);
        const std::int32_t l = last_of(s);
        rows.clear();
        bool dense = true;
        for (std::int32_t j = f; j < l && dense; ++j)
            dense = c.length(j) >= l - j && c.subscripts(j)[l - j - 1] == l;
        if (dense) {
            const std::int32_t len = c.length(l);
            if (len > 0) rows.assign(c.subscripts(l), c.subscripts(l) + len);
            return;
        }
        ++current_stamp;
        for (std::int32_t j = f; j <= l; ++j) {
            const std::int32_t len = c.length(j);
            const std::int32_t* sub = len > 0 ? c.subscripts(j) : nullptr;
            for (std::int32_t p = 0; p < len; ++p)
                if (sub[p] > l && stamp[at(sub[p])] != current_stamp) {
                    stamp[at(sub[p])] = current_stamp;
                    rows.push_back(sub[p]);
                }
        }
        std::sort(rows.begin(), rows.end());
    };

    std::vector<std::int32_t> rows, other, merged, joined;
    std::int32_t s = nnode;
    while (s >= 1) {
        // The block starts with node s and ends with node t.
        std::int32_t t = s;
        node_rows(s, rows);
        double cost = block_cost(last_of(s) - first_of(s) + 1, static_cast<double>(rows.size()));
        while (t > 1 && !rows.empty()) {
            const std::int32_t parent = rows.front();
            std::int32_t u = t - 1;  // the parent's node
            while (u > 1 && last_of(u) < parent && t - u <= max_between) --u;
            if (last_of(u) < parent) break;
            const std::int32_t l = last_of(u);
            double separate = cost;
            merged.assign(std::upper_bound(rows.begin(), rows.end(), l), rows.end());
            for (std::int32_t v = t - 1; v >= u; --v) {
                node_rows(v, other);
                separate += block_cost(last_of(v) - first_of(v) + 1,
                                       static_cast<double>(other.size()));
                joined.clear();
                std::set_union(merged.begin(), merged.end(),
                               std::upper_bound(other.begin(), other.end(), l), other.end(),
                               std::back_inserter(joined));
                merged.swap(joined);
            }
            const double nb = l - first_of(s) + 1;
            const double nu = static_cast<double>(merged.size());
            const double merged_cost = block_cost(nb, nu);
            if (!(merged_cost <= separate && unit_elements(nb, nu) <= max_elements)) break;
            rows.swap(merged);
            cost = merged_cost;
            t = u;
        }
        if (t < s) blocks.emplace_back(first_of(s), last_of(t));
        s = t - 1;
    }
    return blocks;
}

[[noreturn]] void dpotri_failed(lapack_int info) {
    std::cout << "Routine DPOTRI returned error code " << info << std::endl;
    throw error_stop();
}

// What both numeric phases share: the factor, mark and list, and the
// blocks of the unit at hand.
class block_work {
public:
    block_work(std::int32_t neqns, std::span<const std::int32_t> xlnz, std::span<double> xspars,
               std::span<const std::int32_t> xnzsub, std::span<const std::int32_t> nzsub,
               std::span<double> diag)
        : c_{xlnz.data(), xspars.data(), xnzsub.data(), nzsub.data(), diag.data()},
          mark_(static_cast<std::size_t>(neqns), 0),
          list_(static_cast<std::size_t>(neqns), 0),
          budget_(block_budget(xspars.size())) {}

    const factor_columns& columns() const { return c_; }

    // Factors the columns f to l, a node (merged false) or a merged block.
    // Returns false, with nothing written, when the unit must be worked in
    // single columns: DPOTRF failed (a node writes the message), or a pivot
    // of a merged block is at most the working zero.
    bool factor(std::int32_t f, std::int32_t l, bool merged, std::int32_t& factored);
    // Overwrites the factor of the columns f to l by the inverse.
    void invert(std::int32_t f, std::int32_t l, std::int64_t max_s_elements);

private:
    // W, the list (ascending) with its marks; returns its length.
    std::int32_t gather(std::int32_t f, std::int32_t l);
    // B (nu x nb): the rows of the list in the unit's columns.
    void gather_rows(std::int32_t f, std::int32_t l, std::int32_t nu);
    // The unit back into diag and xspars: the diagonal and the positions
    // inside the unit from W, those below it from R (nu x nb) times sign.
    void scatter_inside(std::int32_t f, std::int32_t l);
    void scatter_below(std::int32_t f, std::int32_t l, std::int32_t nu, const double* R,
                       double sign);
    void clear_marks(std::int32_t nu);
    void release();
    // The update of the columns of the list by the lower triangle of B B'.
    void update(std::int32_t nb, std::int32_t nu);
    // DPOTRF, DTRTRI and DLAUUM on the lower triangle of W (order nb),
    // with LAPACK's info; see the definitions.
    lapack_int potrf(idx nb);
    lapack_int trtri(idx nb);
    lapack_int lauum(idx nb);
    // T = S B, S the known inverse on the rows of the list.
    void product_with_s(std::int32_t nb, std::int32_t nu, std::int64_t max_s_elements);
    // The same a panel of rows of T at a time, each finished at once: W
    // takes its part of B' T and the factor its part of -T.
    void product_by_row_panels(std::int32_t f, std::int32_t l, std::int32_t nu);

    factor_columns c_;
    std::vector<std::int32_t> mark_, list_;
    block_buffer W_, B_, C_, T_, S_;
    std::vector<double> small_;  // a diagonal block of W on the side
    pair_finder pairs_;
    blas_threads threads_;
    double budget_;  // see block_budget
};

std::int32_t block_work::gather(std::int32_t f, std::int32_t l) {
    const idx nb = l - f + 1;
    W_.zeroed(static_cast<std::size_t>(nb * nb));
    std::int32_t nu = 0;
    bool ascending = true;
    for (std::int32_t j = f; j <= l; ++j) {
        const idx jj = j - f;
        W_[static_cast<std::size_t>(jj * nb + jj)] = c_.diag[j - 1];
        const std::int32_t len = c_.length(j);
        if (len == 0) continue;
        const std::int32_t* sub = c_.subscripts(j);
        const double* val = c_.values(j);
        for (std::int32_t p = 0; p < len; ++p) {
            const std::int32_t r = sub[p];
            if (r <= l) {
                W_[static_cast<std::size_t>(jj * nb + (r - f))] = val[p];
            } else if (mark_[at(r)] == 0) {
                if (nu > 0 && r < list_[at(nu)]) ascending = false;
                list_[static_cast<std::size_t>(nu++)] = r;
                mark_[at(r)] = 1;
            }
        }
    }
    if (!ascending) std::sort(list_.begin(), list_.begin() + nu);
    for (std::int32_t i = 0; i < nu; ++i) mark_[at(list_[static_cast<std::size_t>(i)])] = i + 1;
    return nu;
}

void block_work::gather_rows(std::int32_t f, std::int32_t l, std::int32_t nu) {
    B_.zeroed(static_cast<std::size_t>(idx{nu} * (l - f + 1)));
    for (std::int32_t j = f; j <= l; ++j) {
        const std::int32_t len = c_.length(j);
        if (len == 0) continue;
        const std::int32_t* sub = c_.subscripts(j);
        const double* val = c_.values(j);
        double* column = B_.data() + static_cast<idx>(j - f) * nu;
        for (std::int32_t p = 0; p < len; ++p)
            if (sub[p] > l) column[mark_[at(sub[p])] - 1] = val[p];
    }
}

void block_work::scatter_inside(std::int32_t f, std::int32_t l) {
    const idx nb = l - f + 1;
    for (std::int32_t j = f; j <= l; ++j) {
        const idx jj = j - f;
        c_.diag[j - 1] = W_[static_cast<std::size_t>(jj * nb + jj)];
        const std::int32_t len = c_.length(j);
        const std::int32_t* sub = len > 0 ? c_.subscripts(j) : nullptr;
        double* val = len > 0 ? c_.values(j) : nullptr;
        for (std::int32_t p = 0; p < len && sub[p] <= l; ++p)
            val[p] = W_[static_cast<std::size_t>(jj * nb + (sub[p] - f))];
    }
}

void block_work::scatter_below(std::int32_t f, std::int32_t l, std::int32_t nu, const double* R,
                               double sign) {
    for (std::int32_t j = f; j <= l; ++j) {
        const std::int32_t len = c_.length(j);
        if (len == 0) continue;
        const std::int32_t* sub = c_.subscripts(j);
        double* val = c_.values(j);
        const double* column = R + static_cast<idx>(j - f) * nu;
        for (std::int32_t p = 0; p < len; ++p)
            if (sub[p] > l) val[p] = sign * column[mark_[at(sub[p])] - 1];
    }
}

void block_work::release() {
    // Small blocks come by the thousand and keep their storage; a large one
    // goes back at once, so that the peak is that of the largest block alone.
    for (block_buffer* b : {&W_, &B_, &C_, &T_, &S_}) b->release();
}

void block_work::clear_marks(std::int32_t nu) {
    for (std::int32_t i = 0; i < nu; ++i) mark_[at(list_[static_cast<std::size_t>(i)])] = 0;
}

bool block_work::factor(std::int32_t f, std::int32_t l, bool merged, std::int32_t& factored) {
    const std::int32_t nb = l - f + 1;
    const std::int32_t nu = gather(f, l);
    threads_.serial();
    bool singular = false;
    if (nb == 1) {
        // One square root: no thread would pay for its start.
        if (W_[0] > spainv_zero) {
            W_[0] = std::sqrt(W_[0]);
        } else {
            W_[0] = 0.0;
            singular = true;
        }
    } else {
        const lapack_int info = potrf(nb);
        if (info != 0 && !merged)
            std::cout << "Routine DPOTRF returned error code: " << info
                      << " (matrix is not positive definite)" << std::endl;
        bool ok = info == 0;
        for (idx jj = 0; ok && merged && jj < nb; ++jj) {
            const double p = W_[static_cast<std::size_t>(jj * nb + jj)];
            ok = p * p > spainv_zero;
        }
        if (!ok) {
            clear_marks(nu);
            return false;
        }
    }
    if (!singular) factored += nb;
    scatter_inside(f, l);

    if (nu > 0) {
        gather_rows(f, l, nu);
        // B = B inverse(L').
        if (singular) {
            dgtrsm('R', 'L', 'T', 'N', nu, nb, 1.0, W_.data(), nb, B_.data(), nu);
        } else if (nb == 1) {
            const double t = 1.0 / W_[0];
            for (std::size_t k = 0; k < B_.size(); ++k) B_[k] *= t;
        } else {
            // DTRSM is several times slower than the inverse of the block
            // followed by DTRMM; L is in the factor already, so W may take
            // its inverse.
            trtri(nb);
            threads_.product(0.5 * static_cast<double>(nu) * nb * nb);
            cblas_dtrmm(CblasColMajor, CblasRight, CblasLower, CblasTrans, CblasNonUnit, nu, nb,
                        1.0, W_.data(), nb, B_.data(), nu);
            threads_.serial();
        }
        if (!singular) update(nb, nu);
        scatter_below(f, l, nu, B_.data(), 1.0);
    }
    clear_marks(nu);
    release();
    return true;
}

void block_work::update(std::int32_t nb, std::int32_t nu) {
    const std::int32_t* lst = list_.data();
    double* xspars = c_.xspars;
    pairs_.reset(nu);
    if (nb == 1) {
        const double* b = B_.data();
        for (std::int32_t i = 0; i < nu; ++i) {
            const double d = b[i];
            c_.diag[lst[i] - 1] -= d * d;
            pairs_.for_row(c_, lst, nu, i,
                           [&](std::int32_t m, idx k) { xspars[k] -= b[m] * d; });
        }
        return;
    }
    const idx nul = nu;
    threads_.start_run((nul + panel_width - 1) / panel_width);
    for (idx i0 = 0; i0 < nul; i0 += panel_width) {
        const idx w = std::min(panel_width, nul - i0);
        const idx rows = nul - i0;
        if (C_.size() < static_cast<std::size_t>(rows * w))
            C_.zeroed(static_cast<std::size_t>(rows * w));
        threads_.before(static_cast<double>(rows) * static_cast<double>(w) * nb);
        cblas_dgemm(CblasColMajor, CblasNoTrans, CblasTrans, static_cast<int>(rows),
                    static_cast<int>(w), nb, 1.0, B_.data() + i0, nu, B_.data() + i0, nu, 0.0,
                    C_.data(), static_cast<int>(rows));
        threads_.after();
        for (idx ii = 0; ii < w; ++ii) {
            const std::int32_t i = static_cast<std::int32_t>(i0 + ii);
            const double* ci = C_.data() + ii * rows;  // ci[m - i0] is C(m, i)
            c_.diag[lst[i] - 1] -= ci[ii];
            pairs_.for_row(c_, lst, nu, i,
                           [&](std::int32_t m, idx k) { xspars[k] -= ci[m - i0]; });
        }
    }
    threads_.serial();
}

void block_work::invert(std::int32_t f, std::int32_t l, std::int64_t max_s_elements) {
    const std::int32_t nb = l - f + 1;
    const std::int32_t nu = gather(f, l);
    threads_.serial();
    lapack_int info = 0;
    const bool singular = nb == 1 && !(W_[0] > spainv_zero);

    if (nu == 0) {
        if (singular) {
            W_[0] = 0.0;
        } else if (nb == 1) {
            const double t = 1.0 / W_[0];
            W_[0] = t * t;
        } else {
            // DPOTRI: DTRTRI, then DLAUUM.
            info = trtri(nb);
            if (info == 0) info = lauum(nb);
            if (info != 0) dpotri_failed(info);
        }
        scatter_inside(f, l);
        release();
        return;
    }

    gather_rows(f, l, nu);
    // B = B inverse(L), W = inverse(L L').
    if (singular) {
        dgtrsm('R', 'L', 'N', 'N', nu, 1, 1.0, W_.data(), 1, B_.data(), nu);
        W_[0] = 0.0;
    } else if (nb == 1) {
        const double t = 1.0 / W_[0];
        for (std::size_t k = 0; k < B_.size(); ++k) B_[k] *= t;
        W_[0] = t * t;
    } else {
        // DPOTRI is DTRTRI followed by DLAUUM: the inverse of L in between
        // serves the product with B as well, faster than DTRSM.
        info = trtri(nb);
        if (info != 0) dpotri_failed(info);
        threads_.product(0.5 * static_cast<double>(nu) * nb * nb);
        cblas_dtrmm(CblasColMajor, CblasRight, CblasLower, CblasNoTrans, CblasNonUnit, nu, nb,
                    1.0, W_.data(), nb, B_.data(), nu);
        threads_.serial();
        info = lauum(nb);
        if (info != 0) dpotri_failed(info);
    }

    if (nb > 1 && unit_elements(nb, nu) > budget_) {
        product_by_row_panels(f, l, nu);
        scatter_inside(f, l);
        clear_marks(nu);
        release();
        return;
    }
    product_with_s(nb, nu, max_s_elements);

    // W = W + B' T, whose lower triangle is all that is read: a panel of
    // columns at a time from the diagonal down.
    threads_.start_run((nb + panel_width - 1) / panel_width);
    for (idx j0 = 0; j0 < nb; j0 += panel_width) {
        const idx w = std::min<idx>(panel_width, nb - j0);
        const idx rows = nb - j0;
        threads_.before(static_cast<double>(rows) * static_cast<double>(w) * nu);
        cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, static_cast<int>(rows),
                    static_cast<int>(w), nu, 1.0, B_.data() + j0 * nu, nu, T_.data() + j0 * nu,
                    nu, 1.0, W_.data() + j0 * nb + j0, nb);
        threads_.after();
    }
    threads_.serial();
    scatter_inside(f, l);
    scatter_below(f, l, nu, T_.data(), -1.0);
    clear_marks(nu);
    release();
}

// The three LAPACK routines on W. A block up to a few panels wide goes to
// LAPACK as it is, on one thread. A wider one is worked as LAPACK's own
// blocked algorithms work it, a panel at a time: LAPACK on the diagonal
// blocks, on one thread, and the rest in BLAS 3 products, which may take
// more threads (see blas_threads); LAPACK's threaded routines would stall
// where a product only slows down. The results differ from LAPACK's in the
// order of additions only, and info is the same.
constexpr idx lapack_max_order = 3 * panel_width;

lapack_int block_work::potrf(idx nb) {
    double* a = W_.data();
    const lapack_int lda = static_cast<lapack_int>(nb);
    lapack_int info = 0;
    threads_.serial();
    if (nb <= lapack_max_order) {
        LAPACK_dpotrf("L", &lda, a, &lda, &info);
        return info;
    }
    // Right-looking: factor the diagonal block, solve the panel below with
    // its inverse, update the trailing triangle.
    for (idx k0 = 0; k0 < nb; k0 += panel_width) {
        const idx kb = std::min(panel_width, nb - k0);
        const lapack_int order = static_cast<lapack_int>(kb);
        double* akk = a + k0 * nb + k0;
        LAPACK_dpotrf("L", &order, akk, &lda, &info);
        if (info != 0) return info + static_cast<lapack_int>(k0);
        const idx r = nb - k0 - kb;
        if (r == 0) break;
        small_.assign(static_cast<std::size_t>(kb * kb), 0.0);
        for (idx j = 0; j < kb; ++j)
            std::copy(akk + j * nb + j, akk + j * nb + kb, small_.data() + j * kb + j);
        LAPACK_dtrtri("L", "N", &order, small_.data(), &order, &info);
        threads_.product(0.5 * static_cast<double>(r) * kb * kb);
        cblas_dtrmm(CblasColMajor, CblasRight, CblasLower, CblasTrans, CblasNonUnit,
                    static_cast<int>(r), static_cast<int>(kb), 1.0, small_.data(), order, akk + kb,
                    lda);
        threads_.product(0.5 * static_cast<double>(r) * r * kb);
        cblas_dsyrk(CblasColMajor, CblasLower, CblasNoTrans, static_cast<int>(r),
                    static_cast<int>(kb), -1.0, akk + kb, lda, 1.0, akk + kb * nb + kb, lda);
        threads_.serial();
    }
    return 0;
}

lapack_int block_work::trtri(idx nb) {
    double* a = W_.data();
    const lapack_int lda = static_cast<lapack_int>(nb);
    lapack_int info = 0;
    threads_.serial();
    if (nb <= lapack_max_order) {
        LAPACK_dtrtri("L", "N", &lda, a, &lda, &info);
        return info;
    }
    for (idx j = 0; j < nb; ++j)
        if (a[j * nb + j] == 0.0) return static_cast<lapack_int>(j + 1);
    // From the last diagonal block back: with L21 below L11 and the inverse
    // of L22 known, the block below becomes -inverse(L22) L21 inverse(L11).
    for (idx j0 = (nb - 1) / panel_width * panel_width; j0 >= 0; j0 -= panel_width) {
        const idx jb = std::min(panel_width, nb - j0);
        const lapack_int order = static_cast<lapack_int>(jb);
        double* ajj = a + j0 * nb + j0;
        LAPACK_dtrtri("L", "N", &order, ajj, &lda, &info);
        const idx r = nb - j0 - jb;
        if (r == 0) continue;
        threads_.product(0.5 * static_cast<double>(r) * r * jb);
        cblas_dtrmm(CblasColMajor, CblasLeft, CblasLower, CblasNoTrans, CblasNonUnit,
                    static_cast<int>(r), static_cast<int>(jb), 1.0, ajj + jb * nb + jb, lda,
                    ajj + jb, lda);
        cblas_dtrmm(CblasColMajor, CblasRight, CblasLower, CblasNoTrans, CblasNonUnit,
                    static_cast<int>(r), static_cast<int>(jb), -1.0, ajj, lda, ajj + jb, lda);
        threads_.serial();
    }
    return 0;
}

lapack_int block_work::lauum(idx nb) {
    double* a = W_.data();
    const lapack_int lda = static_cast<lapack_int>(nb);
    lapack_int info = 0;
    threads_.serial();
    if (nb <= lapack_max_order) {
        LAPACK_dlauum("L", &lda, a, &lda, &info);
        return info;
    }
    // L' L by block rows of L: row block i takes its own part and that of
    // the rows below.
    for (idx i0 = 0; i0 < nb; i0 += panel_width) {
        const idx ib = std::min(panel_width, nb - i0);
        const lapack_int order = static_cast<lapack_int>(ib);
        double* aii = a + i0 * nb + i0;
        double* row = a + i0;  // the block row left of the diagonal block
        const idx below = nb - i0 - ib;
        threads_.product(0.5 * static_cast<double>(ib) * ib * i0);
        cblas_dtrmm(CblasColMajor, CblasLeft, CblasLower, CblasTrans, CblasNonUnit,
                    static_cast<int>(ib), static_cast<int>(i0), 1.0, aii, lda, row, lda);
        threads_.serial();
        LAPACK_dlauum("L", &order, aii, &lda, &info);
        if (below == 0) continue;
        threads_.product(static_cast<double>(ib) * i0 * below);
        cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, static_cast<int>(ib),
                    static_cast<int>(i0), static_cast<int>(below), 1.0, aii + ib, lda, row + ib,
                    lda, 1.0, row, lda);
        threads_.product(0.5 * static_cast<double>(ib) * ib * below);
        cblas_dsyrk(CblasColMajor, CblasLower, CblasTrans, static_cast<int>(ib),
                    static_cast<int>(below), 1.0, aii + ib, lda, 1.0, aii, lda);
        threads_.serial();
    }
    return 0;
}

void block_work::product_by_row_panels(std::int32_t f, std::int32_t l, std::int32_t nu) {
    const std::int32_t nb = l - f + 1;
    const idx nul = nu;
    const idx nbl = nb;
    const std::int32_t* lst = list_.data();
    const double* xspars = c_.xspars;
    const idx hmax = std::min(panel_width, nul);
    double* S = S_.zeroed(static_cast<std::size_t>(hmax * nul));
    double* T = T_.zeroed(static_cast<std::size_t>(hmax * nbl));
    // The next position below the block in each of its columns.
    std::vector<std::int32_t> next(static_cast<std::size_t>(nb), 0);
    for (std::int32_t j = f; j <= l; ++j) {
        const std::int32_t len = c_.length(j);
        const std::int32_t* sub = len > 0 ? c_.subscripts(j) : nullptr;
        std::int32_t p = 0;
        while (p < len && sub[p] <= l) ++p;
        next[static_cast<std::size_t>(j - f)] = p;
    }
    pairs_.reset(nu);
    threads_.start_run((nul + panel_width - 1) / panel_width);
    for (idx q0 = 0; q0 < nul; q0 += panel_width) {
        const idx h = std::min(panel_width, nul - q0);
        const std::int32_t q1 = static_cast<std::int32_t>(q0 + h);
        // S(Q, :), h x nu: the columns before the panel give their rows in
        // it, the panel's own columns the diagonal block and, mirrored, the
        // rest of their rows.
        std::fill_n(S, h * nul, 0.0);
        for (std::int32_t i = 0; i < q0; ++i)
            for_rows_in(c_, lst, i, static_cast<std::int32_t>(q0), q1,
                        [&](std::int32_t m, idx k) { S[i * h + (m - q0)] = xspars[k]; });
        for (std::int32_t q = static_cast<std::int32_t>(q0); q < q1; ++q) {
            S[q * h + (q - q0)] = c_.diag[lst[q] - 1];
            pairs_.for_row(c_, lst, nu, q, [&](std::int32_t m, idx k) {
                const double v = xspars[k];
                S[m * h + (q - q0)] = v;
                if (m < q1) S[q * h + (m - q0)] = v;
            });
        }
        threads_.before(static_cast<double>(h) * static_cast<double>(nul) * nbl);
        cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, static_cast<int>(h), nb, nu, 1.0,
                    S, static_cast<int>(h), B_.data(), nu, 0.0, T, static_cast<int>(h));
        threads_.after();
        // W = W + B(Q, :)' T(Q, :), the lower triangle a panel of columns at
        // a time.
        threads_.product(0.5 * static_cast<double>(nbl) * nbl * h);
        for (idx j0 = 0; j0 < nbl; j0 += panel_width) {
            const idx w = std::min<idx>(panel_width, nbl - j0);
            cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, static_cast<int>(nbl - j0),
                        static_cast<int>(w), static_cast<int>(h), 1.0, B_.data() + q0 + j0 * nul,
                        nu, T + j0 * h, static_cast<int>(h), 1.0, W_.data() + j0 * nbl + j0, nb);
        }
        // -T(Q, :) into the block's columns.
        for (std::int32_t j = f; j <= l; ++j) {
            const std::int32_t len = c_.length(j);
            if (len == 0) continue;
            const std::int32_t* sub = c_.subscripts(j);
            double* val = c_.values(j);
            const idx base = static_cast<idx>(j - f) * h - q0;  // T[base + m] is T(m, j)
            std::int32_t& p = next[static_cast<std::size_t>(j - f)];
            for (; p < len && mark_[at(sub[p])] - 1 < q1; ++p)
                val[p] = -T[base + mark_[at(sub[p])] - 1];
        }
    }
    threads_.serial();
}

void block_work::product_with_s(std::int32_t nb, std::int32_t nu, std::int64_t max_s_elements) {
    const idx nul = nu;
    const idx nbl = nb;
    T_.zeroed(static_cast<std::size_t>(nul * nbl));
    const std::int32_t* lst = list_.data();
    const double* xspars = c_.xspars;
    pairs_.reset(nu);

    // S a panel of columns at a time: its lower part from the diagonal block
    // down. A single column needs no S: the product is accumulated row by
    // row, which is also what is left when S cannot be had.
    const idx wmax = std::min(panel_width, nul);
    bool have_s = nb > 1 && (max_s_elements < 0 || nul * wmax <= max_s_elements);
    if (have_s) {
        try {
            S_.zeroed(static_cast<std::size_t>(nul * wmax));
        } catch (const std::bad_alloc&) {
            have_s = false;
        }
    }
    double* S = S_.data();
    if (!have_s) {
        const double* b = B_.data();
        double* t = T_.data();
        for (std::int32_t i = 0; i < nu; ++i) {
            const double d = c_.diag[lst[i] - 1];
            for (idx jj = 0; jj < nbl; ++jj) t[jj * nul + i] += d * b[jj * nul + i];
            pairs_.for_row(c_, lst, nu, i, [&](std::int32_t m, idx k) {
                const double v = xspars[k];
                for (idx jj = 0; jj < nbl; ++jj) {
                    t[jj * nul + m] += v * b[jj * nul + i];
                    t[jj * nul + i] += v * b[jj * nul + m];
                }
            });
        }
        return;
    }
    threads_.start_run((nul + panel_width - 1) / panel_width);
    for (idx i0 = 0; i0 < nul; i0 += panel_width) {
        const idx w = std::min(panel_width, nul - i0);
        const idx rows = nul - i0;
        std::fill_n(S, rows * w, 0.0);
        for (idx ii = 0; ii < w; ++ii) {
            const std::int32_t i = static_cast<std::int32_t>(i0 + ii);
            double* si = S + ii * rows;  // si[m - i0] is S(m, i)
            si[ii] = c_.diag[lst[i] - 1];
            pairs_.for_row(c_, lst, nu, i,
                           [&](std::int32_t m, idx k) { si[m - i0] = xspars[k]; });
        }
        const int iw = static_cast<int>(w);
        const int irows = static_cast<int>(rows);
        threads_.before((2.0 * static_cast<double>(rows) - static_cast<double>(w)) *
                        static_cast<double>(w) * static_cast<double>(nbl));
        // The diagonal block, then the rows below the panel and their mirror.
        cblas_dsymm(CblasColMajor, CblasLeft, CblasLower, iw, nb, 1.0, S, irows,
                    B_.data() + i0, nu, 1.0, T_.data() + i0, nu);
        if (rows > w) {
            const int below = irows - iw;
            cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, below, nb, iw, 1.0,
                        S + w, irows, B_.data() + i0, nu, 1.0, T_.data() + i0 + w, nu);
            cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, iw, nb, below, 1.0,
                        S + w, irows, B_.data() + i0 + w, nu, 1.0, T_.data() + i0, nu);
        }
        threads_.after();
    }
    threads_.serial();
}

}  // namespace

// ---------------------------------------------------------------------------

void super_nodes(std::int32_t& minsizenode, std::int32_t neqns,
                 std::span<const std::int32_t> xlnz, std::span<const std::int32_t> xnzsub,
                 std::span<const std::int32_t> nzsub, std::int32_t& nnode,
                 std::span<std::int32_t> inode, std::int32_t& maxnode) {
    constexpr std::int32_t no_node = 1073741824;
    const std::int32_t minsize = minsizenode;
    std::int32_t smallest = no_node;
    maxnode = 0;
    nnode = 0;
    if (neqns < 2) {
        nnode = 1;
        inode[0] = neqns;
        inode[1] = 0;
        minsizenode = no_node;
        return;
    }
    std::int32_t cur = neqns;
    for (std::int32_t j = neqns - 1; j >= 1; --j) {
        const std::int32_t width = cur - j;
        const std::int32_t len = xlnz[at(j + 1)] - xlnz[at(j)];
        std::int32_t cnt = 0;
        if (len > 0) {
            const std::int32_t* sub = nzsub.data() + (xnzsub[at(j)] - 1);
            while (cnt < len && sub[cnt] <= cur) ++cnt;
        }
        if (static_cast<double>(cnt) / static_cast<double>(width) < 1.0 && width >= minsize) {
            inode[static_cast<std::size_t>(nnode++)] = cur;
            cur = j;
            maxnode = std::max(maxnode, width);
            smallest = std::min(smallest, width);
        }
    }
    inode[static_cast<std::size_t>(nnode++)] = cur;
    inode[static_cast<std::size_t>(nnode)] = 0;
    minsizenode = smallest;
}

void split_inode(std::span<std::int32_t> inode, std::int32_t& nnode, std::int32_t s) {
    const std::int32_t nb = inode[at(s)] - inode[at(s + 1)];
    if (nb <= 1) return;
    const std::int32_t shift = nb - 1;
    for (std::int32_t k = nnode + 1; k >= s + 1; --k) inode[at(k + shift)] = inode[at(k)];
    for (std::int32_t k = 1; k <= shift; ++k) inode[at(s + k)] = inode[at(s)] - k;
    nnode += shift;
}

// ---------------------------------------------------------------------------

void super_gsfct(std::int32_t neqns, std::span<const std::int32_t> xlnz, std::span<double> xspars,
                 std::span<const std::int32_t> xnzsub, std::span<const std::int32_t> nzsub,
                 std::span<double> diag, std::int32_t& nnode, std::span<std::int32_t> inode,
                 std::int32_t* rank) {
    std::cout << " Cholesky factorization..." << std::endl;
    const std::size_t n = static_cast<std::size_t>(neqns);
    block_work work(neqns, xlnz, xspars, xnzsub, nzsub, diag);
    // Splits may make every column a node of its own.
    std::vector<std::int32_t> nodes(n + 1, 0);
    std::copy_n(inode.begin(), std::min(inode.size(), static_cast<std::size_t>(nnode) + 1),
                nodes.begin());
    std::int32_t count = nnode;
    const auto blocks =
        merged_blocks(work.columns(), neqns, count, nodes.data(), block_budget(xspars.size()));
    std::size_t next_block = 0;
    std::int32_t factored = 0;
    progress_bar bar;

    std::int32_t s = count;
    while (s >= 1) {
        const std::int32_t l = nodes[at(s)];
        const std::int32_t f = nodes[at(s + 1)] + 1;
        const std::int32_t nb = l - f + 1;
        while (next_block < blocks.size() && blocks[next_block].first < f) ++next_block;
        if (next_block < blocks.size() && blocks[next_block].first == f) {
            const std::int32_t last = blocks[next_block++].second;
            std::int32_t t = s;  // the block is the nodes s down to t
            while (nodes[at(t)] < last) --t;
            bar.update(last, neqns);
            if (work.factor(f, last, true, factored)) {
                s = t - 1;
                continue;
            }
            // Node by node, as if the block had never been merged.
        }
        if (nb > 1 && std::any_of(diag.begin() + (f - 1), diag.begin() + l,
                                  [](double d) { return d <= spainv_zero; })) {
            split_inode(nodes, count, s);
            s += nb - 1;
            continue;
        }
        bar.update(l, neqns);
        if (!work.factor(f, l, false, factored)) {
            // Column by column the failing pivot is dropped.
            split_inode(nodes, count, s);
            s += nb - 1;
            continue;
        }
        --s;
    }

    // Rows of the dropped columns: the factor becomes a generalised one.
    // Columns after the last dropped one have nothing to clear.
    std::vector<char> dropped(n, 0);
    bool any = false;
    const factor_columns& c = work.columns();
    for (std::int32_t i = neqns; i >= 1; --i) {
        if (diag[at(i)] < spainv_zero) {
            dropped[at(i)] = 1;
            any = true;
        }
        if (!any) continue;
        const std::int32_t len = c.length(i);
        if (len == 0) continue;
        const std::int32_t* sub = c.subscripts(i);
        double* val = c.values(i);
        for (std::int32_t p = 0; p < len; ++p)
            if (dropped[at(sub[p])]) val[p] = 0.0;
    }

    std::copy_n(nodes.begin(), std::min(inode.size(), nodes.size()), inode.begin());
    nnode = count;
    if (rank) *rank = factored;
}

// ---------------------------------------------------------------------------

void super_sparsinv(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                    std::span<double> xspars, std::span<const std::int32_t> xnzsub,
                    std::span<const std::int32_t> nzsub, std::span<double> diag,
                    std::int32_t nnode, std::span<const std::int32_t> inode,
                    std::int64_t max_s_elements) {
    std::cout << " Sparse inversion..." << std::endl;
    block_work work(neqns, xlnz, xspars, xnzsub, nzsub, diag);
    const auto blocks =
        merged_blocks(work.columns(), neqns, nnode, inode.data(), block_budget(xspars.size()));
    std::ptrdiff_t next_block = static_cast<std::ptrdiff_t>(blocks.size()) - 1;
    progress_bar bar;

    std::int32_t s = 1;
    while (s <= nnode) {
        const std::int32_t l = inode[at(s)];
        const std::int32_t f = inode[at(s + 1)] + 1;
        while (next_block >= 0 && blocks[static_cast<std::size_t>(next_block)].second > l)
            --next_block;
        if (next_block >= 0 && blocks[static_cast<std::size_t>(next_block)].second == l) {
            const std::int32_t first = blocks[static_cast<std::size_t>(next_block--)].first;
            // A block with a dropped or tiny pivot is worked node by node,
            // where the single columns take their own path.
            if (std::all_of(diag.begin() + (first - 1), diag.begin() + l,
                            [](double d) { return d > spainv_zero; })) {
                std::int32_t t = s;  // the block is the nodes s up to t
                while (inode[at(t + 1)] + 1 > first) ++t;
                bar.update(neqns - first + 1, neqns);
                work.invert(first, l, max_s_elements);
                s = t + 1;
                continue;
            }
        }
        bar.update(neqns - f + 1, neqns);
        work.invert(f, l, max_s_elements);
        ++s;
    }
}

// ---------------------------------------------------------------------------

void dgtrsm(char side, char uplo, char transa, char diag, std::int32_t m, std::int32_t n,
            double alpha, const double* a, std::int32_t lda, double* b, std::int32_t ldb) {
    auto same = [](char x, char y) { return x == y || x == y + ('a' - 'A'); };
    const bool lside = same(side, 'L');
    const std::int32_t nrowa = lside ? m : n;
    const bool nounit = same(diag, 'N');
    const bool upper = same(uplo, 'U');
    int info = 0;
    if (!lside && !same(side, 'R'))
        info = 1;
    else if (!upper && !same(uplo, 'L'))
        info = 2;
    else if (!same(transa, 'N') && !same(transa, 'T') && !same(transa, 'C'))
        info = 3;
    else if (!same(diag, 'U') && !same(diag, 'N'))
        info = 4;
    else if (m < 0)
        info = 5;
    else if (n < 0)
        info = 6;
    else if (lda < std::max(1, nrowa))
        info = 9;
    else if (ldb < std::max(1, m))
        info = 11;
    if (info != 0) {
        std::cout << " ** On entry to DGTRSM parameter number " << (info < 10 ? " " : "") << info
                  << " had an illegal value" << std::endl;
        throw error_stop();
    }
    if (m == 0 || n == 0) return;

    auto A = [a, lda](idx i, idx j) { return a[(j - 1) * lda + (i - 1)]; };
    auto Bm = [b, ldb](idx i, idx j) -> double& { return b[(j - 1) * ldb + (i - 1)]; };
    auto reciprocal = [](double p) { return p <= 1e-10 ? 0.0 : 1.0 / p; };

    if (alpha == 0.0) {
        for (idx j = 1; j <= n; ++j)
            for (idx i = 1; i <= m; ++i) Bm(i, j) = 0.0;
        return;
    }
    const bool notrans = same(transa, 'N');
    if (lside) {
        if (notrans) {
            // B = alpha inverse(A) B.
            for (idx j = 1; j <= n; ++j) {
                if (alpha != 1.0)
                    for (idx i = 1; i <= m; ++i) Bm(i, j) *= alpha;
                if (upper) {
                    for (idx k = m; k >= 1; --k)
                        if (Bm(k, j) != 0.0) {
                            if (nounit) Bm(k, j) /= A(k, k);
                            for (idx i = 1; i <= k - 1; ++i) Bm(i, j) -= Bm(k, j) * A(i, k);
                        }
                } else {
                    for (idx k = 1; k <= m; ++k)
                        if (Bm(k, j) != 0.0) {
                            if (nounit) Bm(k, j) /= A(k, k);
                            for (idx i = k + 1; i <= m; ++i) Bm(i, j) -= Bm(k, j) * A(i, k);
                        }
                }
            }
        } else {
            // B = alpha inverse(A') B.
            for (idx j = 1; j <= n; ++j) {
                if (upper) {
                    for (idx i = 1; i <= m; ++i) {
                        double temp = alpha * Bm(i, j);
                        for (idx k = 1; k <= i - 1; ++k) temp -= A(k, i) * Bm(k, j);
                        if (nounit) temp /= A(i, i);
                        Bm(i, j) = temp;
                    }
                } else {
                    for (idx i = m; i >= 1; --i) {
                        double temp = alpha * Bm(i, j);
                        for (idx k = i + 1; k <= m; ++k) temp -= A(k, i) * Bm(k, j);
                        if (nounit) temp /= A(i, i);
                        Bm(i, j) = temp;
                    }
                }
            }
        }
        return;
    }
    if (notrans) {
        // B = alpha B inverse(A).
        if (upper) {
            for (idx j = 1; j <= n; ++j) {
                if (alpha != 1.0)
                    for (idx i = 1; i <= m; ++i) Bm(i, j) *= alpha;
                for (idx k = 1; k <= j - 1; ++k)
                    if (A(k, j) != 0.0)
                        for (idx i = 1; i <= m; ++i) Bm(i, j) -= A(k, j) * Bm(i, k);
                if (nounit) {
                    const double temp = reciprocal(A(j, j));
                    for (idx i = 1; i <= m; ++i) Bm(i, j) *= temp;
                }
            }
        } else {
            for (idx j = n; j >= 1; --j) {
                if (alpha != 1.0)
                    for (idx i = 1; i <= m; ++i) Bm(i, j) *= alpha;
                for (idx k = j + 1; k <= n; ++k)
                    if (A(k, j) != 0.0)
                        for (idx i = 1; i <= m; ++i) Bm(i, j) -= A(k, j) * Bm(i, k);
                if (nounit) {
                    const double temp = reciprocal(A(j, j));
                    for (idx i = 1; i <= m; ++i) Bm(i, j) *= temp;
                }
            }
        }
        return;
    }
    // B = alpha B inverse(A').
    if (upper) {
        for (idx k = n; k >= 1; --k) {
            if (nounit) {
                const double temp = reciprocal(A(k, k));
                for (idx i = 1; i <= m; ++i) Bm(i, k) *= temp;
            }
            for (idx j = 1; j <= k - 1; ++j)
                if (A(j, k) != 0.0) {
                    const double temp = A(j, k);
                    for (idx i = 1; i <= m; ++i) Bm(i, j) -= temp * Bm(i, k);
                }
            if (alpha != 1.0)
                for (idx i = 1; i <= m; ++i) Bm(i, k) *= alpha;
        }
    } else {
        for (idx k = 1; k <= n; ++k) {
            if (nounit) {
                const double temp = reciprocal(A(k, k));
                for (idx i = 1; i <= m; ++i) Bm(i, k) *= temp;
            }
            for (idx j = k + 1; j <= n; ++j)
                if (A(j, k) != 0.0) {
                    const double temp = A(j, k);
                    for (idx i = 1; i <= m; ++i) Bm(i, j) -= temp * Bm(i, k);
                }
            if (alpha != 1.0)
                for (idx i = 1; i <= m; ++i) Bm(i, k) *= alpha;
        }
    }
}

}  // namespace krel
