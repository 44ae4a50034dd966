#include "engine/modpevpec.h"

#include <cblas.h>
#include <cminpack.h>

#include <cmath>

#include "engine/modplink.h"
#include "util/logger.h"
#include "util/modbasic.h"
#include "util/modmatop.h"
#include "util/modstats.h"

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
    double* operator[](std::int32_t i) { return &data_[static_cast<std::size_t>(i) * nt_ * nt_]; }

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

// out = tmform6(ginv, b) for a raw block b.
void contribution(double* out, const dmatrix& ginv, const double* b, std::int32_t nt, dmatrix& bm, dmatrix& om) {
    for (std::int32_t j = 1; j <= nt; ++j)
        for (std::int32_t i = 1; i <= nt; ++i) bm(i, j) = b[(j - 1) * nt + i - 1];
    tmform6(om, ginv, bm);
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

void tmform6(dmatrix& out, const dmatrix& a, const dmatrix& b) {
    if (a.rows() == 1) {
        out.resize(1, 1);
        out(1, 1) = tmform6(a(1, 1), b(1, 1));
        return;
    }
    tmform6_block(out, a, b);
}

void tmform6_block(dmatrix& out, const dmatrix& a, const dmatrix& b) {
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
        double* own_x = &erc(1, 1) - 1;  // 1-based view
        for (std::int32_t k = n; k >= nupg + 1; --k) {
            const std::int32_t i = order[k];
            const double v = x(1, i);
            const double own = std::sqrt(v) * std::sqrt(v) * ri;
            own_x[i] = own;
            fc[i].f += own;
            fc[i].c = tmform6(gi, fc[i].f);
            const std::int32_t s = ped.sire(i), d = ped.dam(i);
            if (valid(s)) fc[s].f += fc[i].c;
            if (valid(d)) fc[d].f += fc[i].c;
        }
        for (std::int32_t k = nupg + 1; k <= n; ++k) {
            const std::int32_t i = order[k];
            const std::int32_t s = ped.sire(i), d = ped.dam(i);
            double f = fc[i].f;
            const double c = fc[i].c;
            if (valid(s)) f += tmform6(gi, fc[s].f - c);
            if (valid(d)) f += tmform6(gi, fc[d].f - c);
            const double xi = x(1, i);
            if (!(xi > 0.0)) {
                fc[i].f = f;
                own_x[i] = 0.0;
                continue;
            }
            f -= own_x[i];
            const double t = f + gi;
            const double xnew = (1.0 / target(1, i) - t) / ri;
            double e = xi + damp * (xnew - xi);
            if (e < 0.0) e = erc_floor;
            own_x[i] = e;
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

namespace {

// diag(Zb' C Zb) block by block: two large products per block, of which only
// the diagonal is kept.
template <typename Expand>
void genomic_pev(const dmatrix& c, std::int64_t nsnp, std::int64_t n, std::int64_t block, Expand expand,
                 std::vector<double>& pev) {
    auto& log = global_logger();
    // A private contiguous copy of the SNP block (c may carry the intercept).
    std::vector<double> cc(static_cast<std::size_t>(nsnp) * nsnp);
    for (std::int64_t j = 0; j < nsnp; ++j)
        std::copy(&c(1, j + 1), &c(1, j + 1) + nsnp, cc.begin() + j * nsnp);
    pev.assign(static_cast<std::size_t>(n), 0.0);
    const std::int64_t b = std::min(block, std::max<std::int64_t>(n, 1));
    std::vector<double> zb(static_cast<std::size_t>(nsnp) * b), t(static_cast<std::size_t>(nsnp) * b),
        q(static_cast<std::size_t>(b) * b);
    for (std::int64_t s = 0; s < n; s += block) {
        const std::int64_t e = std::min(s + block, n), nb = e - s;
        wtime clock;
        expand(s, nb, zb.data());
        const double t_expand = clock.elapsed();
        clock.start();
        cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, nsnp, nb, nsnp, 1.0, cc.data(), nsnp, zb.data(), nsnp,
                    0.0, t.data(), nsnp);
        const double t_first = clock.elapsed();
        clock.start();
        cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, nb, nb, nsnp, 1.0, zb.data(), nsnp, t.data(), nsnp, 0.0,
                    q.data(), nb);
        const double t_second = clock.elapsed();
        clock.start();
        for (std::int64_t i = 0; i < nb; ++i) pev[s + i] = q[i * nb + i];
        if (s == 0) {
            log.log_information("Wall clock time decompression: " + realtochar(t_expand, "(f0.3)"));
            log.log_information("Wall clock time dgemm 1: " + realtochar(t_first, "(f0.3)"));
            log.log_information("Wall clock time dgemm 2: " + realtochar(t_second, "(f0.3)"));
            log.log_information("Wall clock time storage: " + realtochar(clock.elapsed(), "(f0.3)"));
        }
    }
}

}  // namespace

void get_pev_gen_exp_real(const dmatrix& c, const covariable_type& cov, std::vector<double>& pev) {
    const std::int64_t nsnp = cov.nsnp;
    genomic_pev(c, nsnp, cov.ngeno, 256,
                [&](std::int64_t s, std::int64_t nb, double* zb) {
                    std::copy(&cov.val(1, s + 1), &cov.val(1, s + 1) + nsnp * nb, zb);
                },
                pev);
}

void get_pev_gen_exp_plink(const dmatrix& c, const covariable_type& cov, std::vector<double>& pev) {
    const std::int64_t nsnp = cov.nsnp;
    genomic_pev(c, nsnp, cov.ngeno, 2048,
                [&](std::int64_t s, std::int64_t nb, double* zb) {
                    // Blocks start on a byte: 2048 animals are 512 bytes.
                    expand_genotypes(cov.ival.column(s / 4 + 1), cov.ival.ld(), nsnp, cov.val.data(), nb, nullptr, zb,
                                     nsnp);
                },
                pev);
}

void tiermeyer(const pedigree_type& ped, std::span<const std::int32_t> order, std::span<const double> inb,
               double ginv, double rinv, std::span<const double> w, std::vector<double>& d) {
    const std::int32_t n = ped.nlength(), g = ped.nupg, last = n - g;
    auto valid = [&](std::int32_t p) { return p >= 1 && p <= last; };
    auto f_of = [&](std::int32_t p) { return inb.empty() ? 0.0 : inb[p]; };
    // Information passed up from progeny treats the mate as unknown (the
    // one-parent form of the contribution). Information passed down is taken
    // halfway between that view and the one in which the mate is known: in
    // the latter the animal's own Mendelian sampling precision by Henderson's
    // rules, with inbreeding, is shared among its known parents, so that
    // parents known without error give what the inverse relationship matrix
    // gives. Against exact inverses of generated pedigrees the halfway form
    // is the most accurate of the three (correlation 0.993 to 0.995, slope
    // 0.99 to 1.01); each extreme leaves a bias of its own sign.
    auto known_mate = [&](std::int32_t i) {
        const std::int32_t s = ped.sire(i), dm = ped.dam(i);
        const bool ks = valid(s), kd = valid(dm);
        if (ks && kd) return 3.0 * (1.0 / (0.5 - 0.25 * (f_of(s) + f_of(dm))) - 1.0) * ginv / 2.0;
        const double fp = ks ? f_of(s) : f_of(dm);
        return 3.0 * (1.0 / (0.75 - 0.25 * fp) - 1.0) * ginv;
    };
    std::vector<double> f(static_cast<std::size_t>(n) + 1, 0.0), c(static_cast<std::size_t>(n) + 1, 0.0);
    for (std::int32_t k = n; k >= g + 1; --k) {
        const std::int32_t i = order[k];
        f[i] += w[i] * rinv;
        c[i] = tmform6(ginv, f[i]);
        const std::int32_t s = ped.sire(i), dm = ped.dam(i);
        if (valid(s)) f[s] += c[i];
        if (valid(dm)) f[dm] += c[i];
    }
    d.assign(static_cast<std::size_t>(n) + 1, 1.0 / ginv);
    for (std::int32_t k = g + 1; k <= n; ++k) {
        const std::int32_t i = order[k];
        const std::int32_t s = ped.sire(i), dm = ped.dam(i);
        if (valid(s) || valid(dm)) {
            const double a = 0.5 * (ginv + known_mate(i));
            if (valid(s)) f[i] += tmform6(a, f[s] - c[i]);
            if (valid(dm)) f[i] += tmform6(a, f[dm] - c[i]);
        }
        d[i] = 1.0 / (f[i] + ginv);
    }
}

}  // namespace krel
