#include "engine/erc_reversal.h"

#include <cblas.h>
#include <cminpack.h>

#include <cassert>
#include <cmath>

#include "util/dense_linear_algebra.h"
#include "util/fortran_format.h"
#include "util/logger.h"
#include "util/run_timer.h"

namespace krel {

namespace {

constexpr double erc_floor = 0.0000001;
constexpr double lm_floor = 1.4901161193847656e-08;  // 2^-26
constexpr double working_zero = 0.00000001;

// nt by nt blocks, one per record, in one array.
class block_array {
public:
    block_array(std::int32_t nt, std::int32_t n)
        : nt_(nt), data_(static_cast<std::size_t>(nt) * nt * (static_cast<std::size_t>(n) + 1), 0.0) {}
    double* operator[](std::int32_t i) {
        assert(i >= 0 && static_cast<std::size_t>(i + 1) * nt_ * nt_ <= data_.size());
        return &data_[static_cast<std::size_t>(i) * nt_ * nt_];
    }

private:
    std::int32_t nt_;
    std::vector<double> data_;
};

// Own information of a record: D(x)(a,b) = sqrt(x(a)) sqrt(x(b)) rinv(a,b).
void add_own(double* f, const double* x, const dmatrix& rinv, std::int32_t nt, double sign) {
    for (std::int32_t b = 1; b <= nt; ++b)
        for (std::int32_t a = 1; a <= nt; ++a)
            f[(b - 1) * nt + a - 1] += sign * (std::sqrt(x[a - 1]) * std::sqrt(x[b - 1]) * rinv(a, b));
}

// out = parent_contribution(ginv, b) for a raw block b.
void contribution(double* out, const dmatrix& ginv, const double* b, std::int32_t nt, dmatrix& bm, dmatrix& om) {
    for (std::int32_t j = 1; j <= nt; ++j)
        for (std::int32_t i = 1; i <= nt; ++i) bm(i, j) = b[(j - 1) * nt + i - 1];
    parent_contribution(om, ginv, bm);
    for (std::int32_t j = 1; j <= nt; ++j)
        for (std::int32_t i = 1; i <= nt; ++i) out[(j - 1) * nt + i - 1] = om(i, j);
}

struct fcn_data {
    std::span<const double> target;
    const dmatrix* p;
    const dmatrix* rinv;
    dmatrix z;
};

int fcn(void* data, int m, int n, const double* x, double* fvec, int iflag) {
    (void)m;
    (void)iflag;
    auto& d = *static_cast<fcn_data*>(data);
    std::vector<double> s(n);
    for (int a = 0; a < n; ++a) s[a] = std::sqrt(std::max(x[a], lm_floor));
    for (int b = 1; b <= n; ++b)
        for (int a = 1; a <= n; ++a) d.z(a, b) = s[b - 1] * s[a - 1] * (*d.rinv)(a, b) + (*d.p)(a, b);
    std::int32_t rank = 0;
    ginv1(d.z, n, working_zero, rank);
    for (int a = 1; a <= n; ++a) fvec[a - 1] = d.target[a - 1] - d.z(a, a);
    return 0;
}

}  // namespace

void parent_contribution(dmatrix& out, const dmatrix& a, const dmatrix& b) {
    if (a.rows() == 1) {
        out.resize(1, 1);
        out(1, 1) = parent_contribution(a(1, 1), b(1, 1));
        return;
    }
    parent_contribution_block(out, a, b);
}

void parent_contribution_block(dmatrix& out, const dmatrix& a, const dmatrix& b) {
    const auto nt = static_cast<std::int32_t>(a.rows());
    out.resize(nt, nt);
    dmatrix m(nt, nt);
    for (std::int32_t j = 1; j <= nt; ++j)
        for (std::int32_t i = 1; i <= nt; ++i) m(i, j) = (4.0 / 3.0) * a(i, j) + b(i, j);
    std::int32_t rank = 0;
    ginv1(m, nt, working_zero, rank);
    // Q = a M^- a, two plain products: the blocks are a few traits wide.
    dmatrix am(nt, nt);
    for (std::int32_t j = 1; j <= nt; ++j)
        for (std::int32_t k = 1; k <= nt; ++k)
            for (std::int32_t i = 1; i <= nt; ++i) am(i, j) += a(i, k) * m(k, j);
    for (std::int32_t j = 1; j <= nt; ++j)
        for (std::int32_t i = 1; i <= nt; ++i) {
            double q = 0.0;
            for (std::int32_t k = 1; k <= nt; ++k) q += am(i, k) * a(k, j);
            out(i, j) = a(i, j) * (1.0 / 3.0) - q * (4.0 / 9.0);
        }
}

void get_erc(std::span<const double> target_i, const dmatrix& p, const dmatrix& rinv, std::span<double> x) {
    const int nt = static_cast<int>(x.size());
    for (double& v : x)
        if (v < 0.0) v = lm_floor;
    const int m = nt, n = nt;
    const int lwa = m * n + 5 * n + m;
    std::vector<double> fvec(m), wa(lwa);
    std::vector<int> iwa(n);
    fcn_data data{target_i, &p, &rinv, dmatrix(nt, nt)};
    lmdif1(fcn, &data, m, n, x.data(), fvec.data(), lm_floor, iwa.data(), wa.data(), lwa);
}

void tiermeyer_rev(const pedigree_type& ped, std::span<const std::int32_t> order, std::int32_t n,
                   std::int32_t nupg, const dmatrix& ginv, const dmatrix& rinv, const dmatrix& x,
                   const dmatrix& target, bool flag, dmatrix& erc) {
    const auto nt = static_cast<std::int32_t>(ginv.rows());
    const double damp = flag ? 0.35 : 0.7;
    // A parent 0 is unknown whether or not the pedigree has groups; a group
    // parent takes no part.
    const std::int32_t last_animal = n - nupg;
    auto valid = [&](std::int32_t p) { return p >= 1 && p <= last_animal; };

    if (nt == 1) {
        // Closed forms throughout: one pass over the records costs a few
        // scalar operations each. The information of a record and its
        // contribution to its parents sit side by side, one cache line for
        // both; the own information of the present ERC is kept in erc between
        // the passes rather than computed twice.
        const double gi = ginv(1, 1), ri = rinv(1, 1);
        struct info {
            double f, c;
        };
        std::vector<info> fc(static_cast<std::size_t>(n) + 1, info{0.0, 0.0});
        erc.resize(1, n);
        // erc has one row: own_x[i - 1] is erc(1, i). Taken from data() so
        // that an empty pedigree never indexes the empty matrix.
        double* const own_x = erc.data();
        for (std::int32_t k = n; k >= nupg + 1; --k) {
            const std::int32_t i = order[k];
            const double v = x(1, i);
            const double own = std::sqrt(v) * std::sqrt(v) * ri;
            own_x[i - 1] = own;
            fc[i].f += own;
            fc[i].c = parent_contribution(gi, fc[i].f);
            const std::int32_t s = ped.sire(i), d = ped.dam(i);
            if (valid(s)) fc[s].f += fc[i].c;
            if (valid(d)) fc[d].f += fc[i].c;
        }
        for (std::int32_t k = nupg + 1; k <= n; ++k) {
            const std::int32_t i = order[k];
            const std::int32_t s = ped.sire(i), d = ped.dam(i);
            double f = fc[i].f;
            const double c = fc[i].c;
            if (valid(s)) f += parent_contribution(gi, fc[s].f - c);
            if (valid(d)) f += parent_contribution(gi, fc[d].f - c);
            const double xi = x(1, i);
            if (!(xi > 0.0)) {
                fc[i].f = f;
                own_x[i - 1] = 0.0;
                continue;
            }
            f -= own_x[i - 1];
            const double t = f + gi;
            const double xnew = (1.0 / target(1, i) - t) / ri;
            double e = xi + damp * (xnew - xi);
            if (e < 0.0) e = erc_floor;
            own_x[i - 1] = e;
            fc[i].f = f + std::sqrt(e) * std::sqrt(e) * ri;
        }
        return;
    }

    block_array f(nt, n), c(nt, n);
    dmatrix bm(nt, nt), om(nt, nt), t(nt, nt);
    std::vector<double> w(static_cast<std::size_t>(nt) * nt), xi(nt), xnew(nt), ti(nt);
    for (std::int32_t k = n; k >= nupg + 1; --k) {
        const std::int32_t i = order[k];
        add_own(f[i], &x(1, i), rinv, nt, 1.0);
        contribution(c[i], ginv, f[i], nt, bm, om);
        for (const std::int32_t p : {ped.sire(i), ped.dam(i)})
            if (valid(p))
                for (std::int32_t e = 0; e < nt * nt; ++e) f[p][e] += c[i][e];
    }
    erc.resize(nt, n);
    for (std::int32_t k = nupg + 1; k <= n; ++k) {
        const std::int32_t i = order[k];
        for (const std::int32_t p : {ped.sire(i), ped.dam(i)}) {
            if (!valid(p)) continue;
            for (std::int32_t e = 0; e < nt * nt; ++e) w[e] = f[p][e] - c[i][e];
            contribution(w.data(), ginv, w.data(), nt, bm, om);
            for (std::int32_t e = 0; e < nt * nt; ++e) f[i][e] += w[e];
        }
        if (!(x(1, i) > 0.0)) continue;
        for (std::int32_t a = 1; a <= nt; ++a) xi[a - 1] = x(a, i);
        add_own(f[i], xi.data(), rinv, nt, -1.0);
        for (std::int32_t b = 1; b <= nt; ++b)
            for (std::int32_t a = 1; a <= nt; ++a) t(a, b) = f[i][(b - 1) * nt + a - 1] + ginv(a, b);
        for (std::int32_t a = 1; a <= nt; ++a) ti[a - 1] = target(a, i);
        xnew = xi;
        get_erc(ti, t, rinv, xnew);
        for (std::int32_t a = 1; a <= nt; ++a) {
            double e = xi[a - 1] + damp * (xnew[a - 1] - xi[a - 1]);
            erc(a, i) = e < 0.0 ? erc_floor : e;
        }
        add_own(f[i], &erc(1, i), rinv, nt, 1.0);
    }
}

void erc_rev(const pedigree_type& ped, std::span<const std::int32_t> order, std::int32_t n, std::int32_t nupg,
             const dmatrix& ginv, const dmatrix& rinv, const dmatrix& target, std::span<const double> rel,
             double h2, std::int32_t maxiter, dmatrix& erc) {
    auto& log = global_logger();
    wtime clock;
    const auto nt = static_cast<std::int32_t>(ginv.rows());
    double conv = 1.0, prev = 1.0;
    std::int32_t iter = 0;
    bool flag = false;
    dmatrix x(nt, n);
    const double lambda = (1.0 - h2) / h2;
    for (std::int32_t i = 1; i <= n; ++i)
        for (std::int32_t a = 1; a <= nt; ++a) x(a, i) = (lambda * rel[i]) / (1.0 - rel[i]);
    erc.resize(nt, n);
    // A conv that is not a number fails the comparison and ends the loop.
    while (iter < maxiter && conv > 0.00001) {
        flag = flag || conv > prev || iter > 15;
        log.log_message("Iteration " + inttochar(iter) + ": " + realtochar(conv, "(e0.6)") + " " + (flag ? "T" : "F"));
        ++iter;
        tiermeyer_rev(ped, order, n, nupg, ginv, rinv, x, target, flag, erc);
        double sd = 0.0, sx = 0.0;
        for (std::int32_t i = 1; i <= n; ++i)
            for (std::int32_t a = 1; a <= nt; ++a) {
                const double diff = erc(a, i) - x(a, i);
                sd += diff * diff;
                sx += x(a, i) * x(a, i);
            }
        prev = conv;
        conv = std::sqrt(sd) / std::sqrt(sx);
        x = erc;
    }
    log.log_message("Wall clock time (s) for reverting ERC: " + realtochar(clock.elapsed(), "(f0.3)"));
}

}  // namespace krel
