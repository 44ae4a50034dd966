// The driver of the selected inversion and of the two factorisations of
// crssparse, the symbolic factorisation with compressed subscripts, and the
// conversions between the matrix's compressed rows and the factor's
// compressed columns.
#include "sparse/selected_inverse.h"

#include <omp.h>

#include <algorithm>
#include <iostream>
#include <limits>

#include <fmt/format.h>

#include "sparse/metis_ordering.h"
#include "sparse/sparse_matrix.h"
#include "sparse/supernodal_kernels.h"
#include "util/error_stop.h"
#include "util/numeric_helpers.h"

namespace krel {

namespace {

constexpr std::int64_t int32_max = std::numeric_limits<std::int32_t>::max();

std::size_t at(std::int64_t one_based) { return static_cast<std::size_t>(one_based - 1); }

// The columns of the factor, read through the 0-based arrays.
struct factor_pattern {
    std::span<const std::int32_t> xlnz;
    std::span<const std::int32_t> xnzsub;
    std::span<const std::int32_t> nzsub;

    std::int32_t first(std::int32_t j) const { return xlnz[at(j)]; }
    std::int32_t length(std::int32_t j) const { return xlnz[at(j + 1)] - xlnz[at(j)]; }
    // The subscripts of column j, ascending.
    const std::int32_t* subscripts(std::int32_t j) const {
        return nzsub.data() + (static_cast<std::ptrdiff_t>(xnzsub[at(j)]) - 1);
    }
    // The 1-based position of subscript row in column j, or 0 when the
    // column has no such subscript.
    std::int32_t position(std::int32_t j, std::int32_t row) const {
        const std::int32_t len = length(j);
        if (len == 0) return 0;
        const std::int32_t* sub = subscripts(j);
        const std::int32_t* p = std::lower_bound(sub, sub + len, row);
        if (p == sub + len || *p != row) return 0;
        return first(j) + static_cast<std::int32_t>(p - sub);
    }
};

std::vector<std::int32_t> inverse_of(std::span<const std::int32_t> perm) {
    std::vector<std::int32_t> invp(perm.size());
    for (std::size_t i = 0; i < perm.size(); ++i) invp[at(perm[i])] = static_cast<std::int32_t>(i + 1);
    return invp;
}

// Calls f(p, k) for every element p (1-based place in ja and a) above the
// diagonal of the upper-stored matrix whose place in the factor is k; within
// a row the elements come from the back, so that of two elements with the
// same column the one nearer the front is the last one seen.
template <class F>
void for_each_factor_element(std::int32_t neqns, const factor_pattern& fp,
                             std::span<const std::int32_t> ia, std::span<const std::int32_t> ja,
                             std::span<const std::int32_t> invp, F&& f) {
    for (std::int32_t lo = 1; lo <= neqns; ++lo) {
        const std::int32_t ilo = invp[at(lo)];
        for (std::int32_t p = ia[at(lo + 1)] - 1; p > ia[at(lo)]; --p) {
            const std::int32_t hi = ja[at(p)];
            if (hi <= lo || hi > neqns) continue;
            const std::int32_t ihi = invp[at(hi)];
            const std::int32_t k =
                ilo < ihi ? fp.position(ilo, ihi) : fp.position(ihi, ilo);
            if (k > 0) f(p, k);
        }
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Symbolic factorisation

void smbfct(std::int32_t neqns, std::span<const std::int32_t> xadj,
            std::span<const std::int32_t> adjncy, std::span<const std::int32_t> perm,
            std::span<const std::int32_t> invp, std::span<std::int32_t> xlnz,
            std::int32_t& maxlnz, std::span<std::int32_t> xnzsub, std::span<std::int32_t> nzsub,
            std::int32_t& maxsub, std::span<std::int32_t> rchlnk, std::span<std::int32_t> mrglnk,
            std::span<std::int32_t> marker, std::int32_t& flag) {
    // The algorithm reads best with the 1-based subscripts of its arrays.
    auto XADJ = [&](std::int64_t i) { return xadj[at(i)]; };
    auto ADJNCY = [&](std::int64_t i) { return adjncy[at(i)]; };
    auto PERM = [&](std::int64_t i) { return perm[at(i)]; };
    auto INVP = [&](std::int64_t i) { return invp[at(i)]; };
    auto XLNZ = [&](std::int64_t i) -> std::int32_t& { return xlnz[at(i)]; };
    auto XNZSUB = [&](std::int64_t i) -> std::int32_t& { return xnzsub[at(i)]; };
    auto NZSUB = [&](std::int64_t i) -> std::int32_t& { return nzsub[at(i)]; };
    auto RCHLNK = [&](std::int64_t i) -> std::int32_t& { return rchlnk[at(i)]; };
    auto MRGLNK = [&](std::int64_t i) -> std::int32_t& { return mrglnk[at(i)]; };
    auto MARKER = [&](std::int64_t i) -> std::int32_t& { return marker[at(i)]; };

    // The structure of column k is gathered in reach, with rchlnk(r) = k
    // telling that row r is in it already, and sorted only when it must be
    // compared with stored subscripts or stored itself. (Merged into an
    // ordered linked list instead, every child would walk the list up to its
    // last row: under a separator with many children that walk, a chain of
    // dependent loads, is nearly all the work.)
    const std::int32_t n = neqns;
    std::vector<std::int32_t> reach;
    std::int64_t nzbeg = 1;
    std::int64_t nzend = 0;
    flag = 0;
    maxlnz = 0;
    XLNZ(1) = 1;
    for (std::int32_t k = 1; k <= n; ++k) {
        MRGLNK(k) = 0;
        MARKER(k) = 0;
        RCHLNK(k) = 0;
    }

    for (std::int32_t k = 1; k <= n; ++k) {
        std::int64_t knz = 0;
        const std::int32_t mrgk = MRGLNK(k);
        bool mrkflg = false;
        MARKER(k) = mrgk != 0 ? MARKER(mrgk) : k;
        XNZSUB(k) = static_cast<std::int32_t>(nzend);
        const std::int32_t node = PERM(k);
        const std::int32_t astart = XADJ(node);
        const std::int32_t astop = XADJ(node + 1) - 1;
        // A vertex without neighbours has no children either: its column
        // is empty.
        if (astart <= astop) {
            // The rows of the matrix below the diagonal.
            reach.clear();
            for (std::int32_t j = astart; j <= astop; ++j) {
                const std::int32_t nabor = INVP(ADJNCY(j));
                if (nabor <= k || RCHLNK(nabor) == k) continue;
                RCHLNK(nabor) = k;
                reach.push_back(nabor);
                if (MARKER(nabor) != MARKER(k)) mrkflg = true;
            }
            knz = static_cast<std::int64_t>(reach.size());

            bool placed = false;
            // One child and no new row: the column is the child's tail.
            if (!mrkflg && mrgk != 0 && MRGLNK(mrgk) == 0) {
                XNZSUB(k) = XNZSUB(mrgk) + 1;
                knz = XLNZ(mrgk + 1) - (XLNZ(mrgk) + 1);
                placed = true;
            }
            if (!placed) {
                // Merge the structures of the children; the longest one is
                // remembered, since the column may be its tail.
                std::int64_t lmax = 0;
                for (std::int32_t i = MRGLNK(k); i != 0; i = MRGLNK(i)) {
                    const std::int64_t inz = XLNZ(i + 1) - (XLNZ(i) + 1);
                    const std::int64_t jstrt = XNZSUB(i) + 1;
                    const std::int64_t jstop = XNZSUB(i) + inz;
                    if (inz > lmax) {
                        lmax = inz;
                        XNZSUB(k) = static_cast<std::int32_t>(jstrt);
                    }
                    for (std::int64_t j = jstrt; j <= jstop; ++j) {
                        const std::int32_t nabor = NZSUB(j);
                        if (RCHLNK(nabor) == k) continue;
                        RCHLNK(nabor) = k;
                        reach.push_back(nabor);
                    }
                }
                knz = static_cast<std::int64_t>(reach.size());
                placed = knz == lmax;
            }
            if (!placed) std::sort(reach.begin(), reach.end());
            if (!placed && nzbeg <= nzend) {
                // The structure may already be stored at the end of the last
                // group of subscripts, or overlap its tail.
                const std::int32_t head = reach.front();
                for (std::int64_t jstrt = nzbeg; jstrt <= nzend; ++jstrt) {
                    if (NZSUB(jstrt) < head) continue;
                    if (NZSUB(jstrt) > head) break;
                    XNZSUB(k) = static_cast<std::int32_t>(jstrt);
                    std::size_t q = 0;
                    bool matched = true;
                    for (std::int64_t j = jstrt; j <= nzend; ++j) {
                        if (NZSUB(j) != reach[q]) {
                            matched = false;
                            break;
                        }
                        if (++q == reach.size()) {
                            placed = true;
                            break;
                        }
                    }
                    // Every stored subscript matched and the structure goes
                    // on: it is written over them and beyond.
                    if (matched && !placed) nzend = jstrt - 1;
                    break;
                }
            }
            if (!placed) {
                nzbeg = nzend + 1;
                nzend += knz;
                if (nzend > maxsub) {
                    flag = 1;
                    return;
                }
                for (std::int64_t j = nzbeg; j <= nzend; ++j) {
                    const std::int32_t i = reach[static_cast<std::size_t>(j - nzbeg)];
                    NZSUB(j) = i;
                    MARKER(i) = k;
                }
                XNZSUB(k) = static_cast<std::int32_t>(nzbeg);
                MARKER(k) = k;
            }
            // The column is needed by the column of its first subscript.
            if (knz > 1) {
                const std::int32_t i = NZSUB(XNZSUB(k));
                MRGLNK(k) = MRGLNK(i);
                MRGLNK(i) = k;
            }
        }
        const std::int64_t next = static_cast<std::int64_t>(XLNZ(k)) + knz;
        if (next > int32_max) {
            flag = 2;
            return;
        }
        XLNZ(k + 1) = static_cast<std::int32_t>(next);
    }
    maxlnz = XLNZ(n) - 1;
    maxsub = XNZSUB(n);
    XNZSUB(n + 1) = XNZSUB(n);
    flag = 0;
}

void symbolicfact(std::int32_t neqns, std::int32_t& maxsub, std::span<const std::int32_t> xadj,
                  std::span<const std::int32_t> adjncy, std::span<const std::int32_t> perm,
                  std::vector<std::int32_t>& xlnz, std::int32_t& maxlnz,
                  std::vector<std::int32_t>& xnzsub, std::vector<std::int32_t>& nzsub) {
    const std::size_t n = static_cast<std::size_t>(neqns);
    const std::vector<std::int32_t> invp = inverse_of(perm.first(n));
    std::vector<std::int32_t> rchlnk, mrglnk, marker;
    xlnz.assign(n + 1, 0);
    xnzsub.assign(n + 1, 0);
    if (neqns == 0) {
        maxsub = 0;
        maxlnz = 0;
        nzsub.clear();
        xlnz[0] = 1;
        return;
    }
    for (;;) {
        nzsub.assign(static_cast<std::size_t>(std::max<std::int32_t>(maxsub, 0)), 0);
        rchlnk.assign(n, 0);
        mrglnk.assign(n, 0);
        marker.assign(n, 0);
        std::fill(xlnz.begin(), xlnz.end(), 0);
        std::fill(xnzsub.begin(), xnzsub.end(), 0);
        std::int32_t used = maxsub;
        std::int32_t flag = 0;
        smbfct(neqns, xadj, adjncy, perm, invp, xlnz, maxlnz, xnzsub, nzsub, used, rchlnk, mrglnk,
               marker, flag);
        if (flag == 2 || (flag == 1 && maxsub == int32_max)) {
            std::cout << " ERROR: the factor has too many non-zero elements" << std::endl;
            throw error_stop();
        }
        if (flag == 1) {
            maxsub = static_cast<std::int32_t>(
                std::min<std::int64_t>(std::max<std::int64_t>(2 * std::int64_t{maxsub}, 1), int32_max));
            continue;
        }
        if (used != maxsub) {
            // Trimmed to fit: a pass with exactly that room would store the
            // same subscripts in the same places.
            nzsub.resize(static_cast<std::size_t>(used));
            nzsub.shrink_to_fit();
            maxsub = used;
        }
        break;
    }
}

// ---------------------------------------------------------------------------
// Values in and out

void computexsparsdiag(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                       std::span<double> xspars, std::span<const std::int32_t> xnzsub,
                       std::span<const std::int32_t> nzsub, std::span<double> diag,
                       std::span<const std::int32_t> ia, std::span<const std::int32_t> ja,
                       std::span<const double> a, std::span<const std::int32_t> perm) {
    std::fill(xspars.begin(), xspars.end(), 0.0);
    std::fill(diag.begin(), diag.end(), 0.0);
    for (std::int32_t i = 1; i <= neqns; ++i) diag[at(i)] = a[at(ia[at(perm[at(i)])])];
    // Walking the matrix and finding each element in its column of the
    // factor costs a binary search per element; walking the factor and
    // scanning a row of the matrix for each position would cost the length
    // of that row, which is the whole matrix for the row of a general mean.
    const factor_pattern fp{xlnz, xnzsub, nzsub};
    const std::vector<std::int32_t> invp = inverse_of(perm.first(static_cast<std::size_t>(neqns)));
    for_each_factor_element(neqns, fp, ia, ja, invp,
                            [&](std::int32_t p, std::int32_t k) { xspars[at(k)] = a[at(p)]; });
}

void converttoija(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                  std::span<const double> xspars, std::span<const std::int32_t> xnzsub,
                  std::span<const std::int32_t> nzsub, std::span<const double> diag,
                  std::span<const std::int32_t> ia, std::span<const std::int32_t> ja,
                  std::span<double> a, std::span<const std::int32_t> perm) {
    for (std::int32_t i = 1; i <= neqns; ++i) a[at(ia[at(perm[at(i)])])] = diag[at(i)];
    const factor_pattern fp{xlnz, xnzsub, nzsub};
    const std::vector<std::int32_t> invp = inverse_of(perm.first(static_cast<std::size_t>(neqns)));
    for_each_factor_element(neqns, fp, ia, ja, invp,
                            [&](std::int32_t p, std::int32_t k) { a[at(p)] = xspars[at(k)]; });
}

void convertfactortoija(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                        std::span<const double> xspars, std::span<const std::int32_t> xnzsub,
                        std::span<const std::int32_t> nzsub, std::span<const double> diag,
                        zeroed_array<std::int32_t>& ia, zeroed_array<std::int32_t>& ja,
                        zeroed_array<double>& a) {
    const factor_pattern fp{xlnz, xnzsub, nzsub};
    const std::size_t n = static_cast<std::size_t>(neqns);
    const std::int64_t nel = static_cast<std::int64_t>(neqns) + (xlnz[n] - 1);
    if (nel > int32_max) {
        std::cout << " ERROR: the factor has too many non-zero elements" << std::endl;
        throw error_stop();
    }
    ia = zeroed_array<std::int32_t>(n + 1);
    ja = zeroed_array<std::int32_t>(static_cast<std::size_t>(nel));
    a = zeroed_array<double>(static_cast<std::size_t>(nel));
    ia[0] = 1;
    for (std::int32_t i = 1; i <= neqns; ++i) {
        const std::int32_t len = fp.length(i);
        std::size_t p = at(ia[at(i)]);
        ja[p] = i;
        a[p] = diag[at(i)];
        const std::int32_t* sub = len > 0 ? fp.subscripts(i) : nullptr;
        for (std::int32_t q = 0; q < len; ++q) {
            ja[p + 1 + static_cast<std::size_t>(q)] = sub[q];
            a[p + 1 + static_cast<std::size_t>(q)] = xspars[at(fp.first(i) + q)];
        }
        ia[at(i + 1)] = ia[at(i)] + 1 + len;
    }
}

void converttoija_noperm(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                         std::span<const double> xspars, std::span<const std::int32_t> xnzsub,
                         std::span<const std::int32_t> nzsub, std::span<const double> diag,
                         zeroed_array<std::int32_t>& ia, zeroed_array<std::int32_t>& ja,
                         zeroed_array<double>& a, std::span<const std::int32_t> perm) {
    const factor_pattern fp{xlnz, xnzsub, nzsub};
    const std::size_t n = static_cast<std::size_t>(neqns);
    const std::vector<std::int32_t> invp = inverse_of(perm.first(n));
    // Element (lo, hi) of the matrix is element (min, max) of the permuted
    // one, with min and max the positions of lo and hi; f(min, max, k) gets
    // its place k in the factor.
    auto for_each_permuted = [&](auto&& f) {
        for (std::int32_t lo = 1; lo <= neqns; ++lo)
            for (std::int32_t p = ia[at(lo)] + 1; p < ia[at(lo + 1)]; ++p) {
                const std::int32_t hi = ja[at(p)];
                if (hi <= lo || hi > neqns) continue;
                const std::int32_t i = std::min(invp[at(lo)], invp[at(hi)]);
                const std::int32_t j = std::max(invp[at(lo)], invp[at(hi)]);
                const std::int32_t k = fp.position(i, j);
                if (k > 0) f(i, j, k);
            }
    };
    std::vector<std::int32_t> count(n, 1);
    for_each_permuted([&](std::int32_t i, std::int32_t, std::int32_t) { ++count[at(i)]; });
    zeroed_array<std::int32_t> nia(n + 1);
    nia[0] = 1;
    for (std::size_t i = 0; i < n; ++i) nia[i + 1] = nia[i] + count[i];
    const std::size_t nel = static_cast<std::size_t>(nia[n] - 1);
    zeroed_array<std::int32_t> nja(nel);
    zeroed_array<double> na(nel);
    std::vector<std::int32_t> next(n);
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t p = static_cast<std::size_t>(nia[i] - 1);
        nja[p] = static_cast<std::int32_t>(i + 1);
        na[p] = diag[i];
        next[i] = nia[i] + 1;
    }
    for_each_permuted([&](std::int32_t i, std::int32_t j, std::int32_t k) {
        const std::size_t q = at(next[at(i)]++);
        nja[q] = j;
        na[q] = xspars[at(k)];
    });
    // Ascending columns behind the diagonal.
    std::vector<std::pair<std::int32_t, double>> row;
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t b = static_cast<std::size_t>(nia[i]);  // behind the diagonal, 0-based
        const std::size_t e = static_cast<std::size_t>(nia[i + 1] - 1);
        row.clear();
        for (std::size_t q = b; q < e; ++q) row.emplace_back(nja[q], na[q]);
        std::sort(row.begin(), row.end());
        for (std::size_t q = b; q < e; ++q) {
            nja[q] = row[q - b].first;
            na[q] = row[q - b].second;
        }
    }
    ia = std::move(nia);
    ja = std::move(nja);
    a = std::move(na);
}

void writetime(std::ostream& unit, const spainv_times& times, std::string_view label) {
    static constexpr std::array<std::string_view, 6> phases = {
        "Symbolic factorization", "Setup of tmp arrays",    "Node determination",
        "Cholesky factorization", "Matrix inversion",       "Conversion to CRS"};
    unit << " CRS MATRIX " << trim(label) << '\n';
    double total = 0.0;
    for (std::size_t k = 0; k < phases.size(); ++k) {
        unit << fmt::format("  {:<24}:{:>12.3f} s\n", phases[k], times[k]);
        total += times[k];
    }
    unit << fmt::format("  {:<24}:{:>12.3f} s\n", "Total time", total);
    unit.flush();
}

// ---------------------------------------------------------------------------
// The pipeline

void get_ichol_spainv_crs(std::int32_t neqns, std::span<const std::int32_t> ia,
                          std::span<const std::int32_t> ja, std::span<const double> a,
                          std::vector<std::int32_t>& xadj, std::vector<std::int32_t>& adjncy,
                          std::span<const std::int32_t> perm, bool lspainv,
                          spainv_factor& factor, std::int32_t minsizenode, spainv_times& times) {
    times.fill(0.0);
    const std::size_t n = static_cast<std::size_t>(neqns);

    double t = omp_get_wtime();
    std::int32_t maxsub = ia[n] - 1;
    std::int32_t maxlnz = 0;
    symbolicfact(neqns, maxsub, xadj, adjncy, perm, factor.xlnz, maxlnz, factor.xnzsub,
                 factor.nzsub);
    std::vector<std::int32_t>().swap(xadj);
    std::vector<std::int32_t>().swap(adjncy);
    times[0] = omp_get_wtime() - t;
    if (neqns == 0) return;

    t = omp_get_wtime();
    factor.xspars = factor_values(static_cast<std::size_t>(maxlnz));
    factor.diag.assign(n, 0.0);
    computexsparsdiag(neqns, factor.xlnz, factor.xspars, factor.xnzsub, factor.nzsub, factor.diag,
                      ia, ja, a, perm);
    times[1] = omp_get_wtime() - t;

    t = omp_get_wtime();
    std::vector<std::int32_t> inode(n + 1, 0);
    std::int32_t nnode = 0;
    std::int32_t maxnode = 0;
    super_nodes(minsizenode, neqns, factor.xlnz, factor.xnzsub, factor.nzsub, nnode, inode,
                maxnode);
    times[2] = omp_get_wtime() - t;

    t = omp_get_wtime();
    super_gsfct(neqns, factor.xlnz, factor.xspars, factor.xnzsub, factor.nzsub, factor.diag,
                nnode, inode);
    times[3] = omp_get_wtime() - t;

    if (lspainv) {
        t = omp_get_wtime();
        super_sparsinv(neqns, factor.xlnz, factor.xspars, factor.xnzsub, factor.nzsub,
                       factor.diag, nnode, inode);
        times[4] = omp_get_wtime() - t;
    }
}

void get_spainv_crs(std::span<const std::int32_t> ia, std::span<const std::int32_t> ja,
                    std::span<double> a, std::vector<std::int32_t>& xadj,
                    std::vector<std::int32_t>& adjncy, std::span<const std::int32_t> perm,
                    std::optional<std::int32_t> minsizenode, std::ostream* unit) {
    const std::int32_t neqns = static_cast<std::int32_t>(ia.size()) - 1;
    spainv_times times{};
    spainv_factor factor;
    get_ichol_spainv_crs(neqns, ia, ja, a, xadj, adjncy, perm, true, factor,
                         minsizenode.value_or(0), times);
    const double t = omp_get_wtime();
    converttoija(neqns, factor.xlnz, factor.xspars, factor.xnzsub, factor.nzsub, factor.diag, ia,
                 ja, a, perm);
    times[5] = omp_get_wtime() - t;
    writetime(unit ? *unit : std::cout, times, "INVERSION");
}

// ---------------------------------------------------------------------------
// The operations of crssparse

namespace {

// The fill-reducing order of the matrix, unless it has one.
void ensure_ordering(crssparse& crs) {
    if (crs.haspermutation32()) return;
    std::vector<std::int32_t> order;
    crs.getordering(order);
    crs.setpermutation32(order);
}

// The supernodal Cholesky factor of the matrix, sorted first, in the order
// of its perm (METIS's unless it has one).
spainv_factor cholesky_factor(crssparse& crs, std::optional<std::int32_t> minsizenode,
                              spainv_times& times) {
    crs.sort();
    ensure_ordering(crs);
    std::vector<std::int32_t> perm;
    crs.getpermutation32(perm);
    metisgraph graph = convertfromcrstometisgraph(crs);
    spainv_factor factor;
    get_ichol_spainv_crs(crs.getdim(1), crs.rowptr(), crs.colval(), crs.nzval(), graph.xadj,
                         graph.adjncy, perm, false, factor, minsizenode.value_or(0), times);
    return factor;
}

}  // namespace

void crssparse::getspainv(std::optional<std::int32_t> minsizenode) {
    sort();
    ensure_ordering(*this);
    metisgraph graph = convertfromcrstometisgraph(*this);
    get_spainv_crs(ia, ja, a, graph.xadj, graph.adjncy, *perm, minsizenode, unlog);
}

void crssparse::getchol(std::optional<std::int32_t> minsizenode) {
    if (ldecomposed) return;
    spainv_times times{};
    const spainv_factor factor = cholesky_factor(*this, minsizenode, times);
    const double t = omp_get_wtime();
    convertfactortoija(dim1, factor.xlnz, factor.xspars, factor.xnzsub, factor.nzsub, factor.diag,
                       ia, ja, a);
    times[5] = omp_get_wtime() - t;
    setsymmetric(false);
    setdecomposed(true);
    lldlt = false;
    setsorted(false);
    sort();
    writetime(out(), times, "CHOL FACT.");
}

void crssparse::getichol(std::optional<std::int32_t> minsizenode) {
    if (ldecomposed) return;
    spainv_times times{};
    const spainv_factor factor = cholesky_factor(*this, minsizenode, times);
    const double t = omp_get_wtime();
    converttoija_noperm(dim1, factor.xlnz, factor.xspars, factor.xnzsub, factor.nzsub,
                        factor.diag, ia, ja, a, *perm);
    times[5] = omp_get_wtime() - t;
    setsymmetric(false);
    setdecomposed(true);
    lldlt = false;
    setsorted(true);
    writetime(out(), times, "SPARSE CHOL FACT.");
}

}  // namespace krel
