// Selected inversion, its symbolic factorisation and supernodes, and the two
// factorisations of crssparse, checked against dense LAPACK results and, on a
// large pedigree model, against solves with CHOLMOD's factor.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <vector>

#include <cblas.h>
#include <cholmod.h>
#include <omp.h>

#include "inputs/pedigree.h"
#include "inputs/pedigree_support.h"
#include "sparse/metis_ordering.h"
#include "sparse/selected_inverse.h"
#include "sparse/sparse_matrix.h"
#include "sparse/supernodal_kernels.h"
#include "sparse_test_support.h"
#include "test_support.h"
#include "util/dense_linear_algebra.h"

namespace krel {
namespace {

using namespace krel::testing;

// The sorted upper-stored symmetric CRS matrix of the dense symmetric a.
crssparse crs_of(const dmatrix& a) {
    crssparse crs = convertfromcootocrs(coo_of(upper_of(a), true, true));
    crs.sort();
    return crs;
}

dmatrix dense_inverse(dmatrix a) {
    invsym(a);
    return a;
}

// The matrix after getspainv holds the inverse on its own pattern, and the
// pattern is that of the matrix before.
void expect_selected_inverse(const crssparse& before, const crssparse& after, const dmatrix& inv,
                             double rel) {
    ASSERT_TRUE(std::ranges::equal(before.rowptr(), after.rowptr()));
    ASSERT_TRUE(std::ranges::equal(before.colval(), after.colval()));
    const auto ia = after.rowptr();
    const auto ja = after.colval();
    const auto a = after.nzval();
    double scale = 0.0;
    for (std::size_t k = 0; k < inv.size(); ++k) scale = std::max(scale, std::abs(inv.data()[k]));
    for (std::int32_t i = 1; i <= after.getdim(1); ++i)
        for (std::int32_t k = ia[i - 1]; k < ia[i]; ++k) {
            const std::int32_t j = ja[k - 1];
            EXPECT_NEAR(a[k - 1], inv(i, j), rel * scale) << "element (" << i << ", " << j << ")";
        }
}

// Runs the selected inversion quietly and returns what it wrote on the
// matrix's unit.
std::string spainv(crssparse& crs, std::optional<std::int32_t> minsizenode = std::nullopt) {
    std::ostringstream unit;
    crs.setoutputunit(&unit);
    cout_capture quiet;
    crs.getspainv(minsizenode);
    return unit.str();
}

// A pedigree of n animals in birth order: the first fifth are founders, the
// others have parents among the older animals (one parent unknown now and
// then), with some full-sib matings so that there is inbreeding.
pedigree_type random_pedigree(std::int32_t n, unsigned seed) {
    std::mt19937_64 gen(seed);
    pedigree_type p;
    p.allocate(n, 0);
    for (std::int32_t i = std::max(2, n / 5) + 1; i <= n; ++i) {
        std::uniform_int_distribution<std::int32_t> older(std::max(1, i - 60), i - 1);
        std::int32_t s = older(gen), d = older(gen);
        if (d == s) d = s > 1 ? s - 1 : s + 1;
        if (gen() % 10 == 0) s = 0;
        p.ped(1, i) = s;
        p.ped(2, i) = d;
    }
    return p;
}

std::vector<double> inbreeding(const pedigree_type& p) {
    const dmatrix a = tabular_relationships(p);
    std::vector<double> f(static_cast<std::size_t>(p.nlength()) + 1, 0.0);
    for (std::int32_t i = 1; i <= p.nlength(); ++i) f[static_cast<std::size_t>(i)] = a(i, i) - 1.0;
    return f;
}

// The coefficient matrix of a single-trait animal model, element by element
// of its upper triangle, add(i, j, v) with i <= j, repeated elements to be
// summed: equation 1 the mean, equation i + 1 animal i; A-inverse by
// Henderson's rules (with the inbreeding f, or none when f is empty) times
// 1/g, and record weights x on the animals that have one.
template <class F>
void animal_model(const pedigree_type& p, const std::vector<double>& f, double g, const std::vector<double>& x,
                  F&& add) {
    for (std::int32_t i = 1; i <= p.nlength(); ++i) {
        const std::int32_t par[2] = {p.sire(i), p.dam(i)};
        double d = 1.0;
        for (std::int32_t q : par)
            if (q) d -= 0.25 * (1.0 + (f.empty() ? 0.0 : f[static_cast<std::size_t>(q)]));
        const double alpha = 1.0 / (g * d);
        add(i + 1, i + 1, alpha);
        for (std::int32_t u : par) {
            if (!u) continue;
            add(std::min(i, u) + 1, std::max(i, u) + 1, -0.5 * alpha);
            for (std::int32_t v : par)
                if (v && u <= v) add(u + 1, v + 1, 0.25 * alpha);
        }
        const double w = x[static_cast<std::size_t>(i)];
        if (w == 0.0) continue;
        add(1, 1, w);
        add(1, i + 1, w);
        add(i + 1, i + 1, w);
    }
}

dmatrix animal_model(const pedigree_type& p, const std::vector<double>& f, double g, const std::vector<double>& x) {
    dmatrix c(p.nlength() + 1, p.nlength() + 1);
    animal_model(p, f, g, x, [&c](std::int32_t i, std::int32_t j, double v) {
        c(i, j) += v;
        if (i != j) c(j, i) += v;
    });
    return c;
}

std::vector<double> record_weights(std::int32_t n, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<double> x(static_cast<std::size_t>(n) + 1, 0.0);
    for (std::int32_t i = 1; i <= n; ++i)
        if (u(gen) < 0.7) x[static_cast<std::size_t>(i)] = 0.2 + 2.0 * u(gen);
    return x;
}

// ---------------------------------------------------------------------------

TEST(Spainv, OrderOneMatrix) {
    for (const auto& [value, expected] : std::vector<std::pair<double, double>>{
             {4.0, 0.25}, {1e-08, 0.0}, {2e-08, 5e7}, {0.0, 0.0}}) {
        dmatrix a(1, 1, value);
        crssparse crs = crs_of(a);
        spainv(crs);
        EXPECT_DOUBLE_EQ(crs.nzval()[0], expected) << "value " << value;
    }
}

TEST(Spainv, DiagonalMatrixGivesTheReciprocalsAndDenseOneNode) {
    dmatrix d(7, 7);
    for (std::int32_t i = 1; i <= 7; ++i) d(i, i) = 0.5 * i;
    crssparse diag = crs_of(d);
    const crssparse diag_before = diag;
    std::ostringstream unit;
    diag.setoutputunit(&unit);
    {
        cout_capture out;
        diag.getspainv();
        EXPECT_TRUE(contains(out.text(), " Sparse inversion...")) << out.text();
    }
    expect_selected_inverse(diag_before, diag, dense_inverse(d), 1e-15);
    EXPECT_TRUE(contains(unit.str(), " CRS MATRIX INVERSION"));

    // The symbolic factor of a dense matrix is one node.
    const dmatrix a = random_symmetric(40, 1.0, 3);
    crssparse crs = crs_of(a);
    const crssparse before = crs;
    spainv(crs);
    expect_selected_inverse(before, crs, dense_inverse(a), 1e-13);
    const metisgraph g = convertfromcrstometisgraph(before);
    std::vector<std::int32_t> perm(40);
    std::iota(perm.begin(), perm.end(), 1);
    std::vector<std::int32_t> xlnz, xnzsub, nzsub, inode(41);
    std::int32_t maxsub = 10, maxlnz = 0, nnode = 0, maxnode = 0, minsize = 0;
    symbolicfact(40, maxsub, g.xadj, g.adjncy, perm, xlnz, maxlnz, xnzsub, nzsub);
    EXPECT_EQ(maxlnz, 40 * 39 / 2);
    super_nodes(minsize, 40, xlnz, xnzsub, nzsub, nnode, inode, maxnode);
    EXPECT_EQ(nnode, 1);
}

TEST(Spainv, WideDenseNodeFailingInALaterPanelIsSplit) {
    // Wider than LAPACK is given whole: the node is worked a panel at a time.
    // A = L D L' with L unit lower and dense but for column 600, which is
    // the unit vector, and D(600) = -0.1: the diagonal of A is positive, but
    // DPOTRF fails at column 600, in the third panel. Worked column by
    // column, that column is dropped and the rest is the inverse of A
    // without it.
    const std::int32_t n = 800, bad = 600;
    dmatrix lo = random_block(n, n, 17);
    for (std::int32_t j = 1; j <= n; ++j)
        for (std::int32_t i = 1; i <= j; ++i) lo(i, j) = i == j ? 1.0 : 0.0;
    for (std::int32_t i = bad + 1; i <= n; ++i) lo(i, bad) = 0.0;
    for (std::size_t k = 0; k < lo.size(); ++k) lo.data()[k] *= 0.05;
    for (std::int32_t i = 1; i <= n; ++i) lo(i, i) = 1.0;
    dmatrix ld(n, n);
    for (std::int32_t j = 1; j <= n; ++j)
        for (std::int32_t i = 1; i <= n; ++i) ld(i, j) = lo(i, j) * (j == bad ? -0.1 : 1.0 + 0.001 * j);
    dmatrix a(n, n);
    cblas_dgemm(CblasColMajor, CblasNoTrans, CblasTrans, n, n, n, 1.0, ld.data(), n, lo.data(), n,
                0.0, a.data(), n);
    for (std::int32_t j = 1; j <= n; ++j)
        for (std::int32_t i = 1; i < j; ++i) a(i, j) = a(j, i);  // exactly symmetric
    const dmatrix expected = inverse_without(a, bad);
    crssparse crs = crs_of(a);
    const crssparse before = crs;
    std::vector<std::int32_t> order(n);
    std::iota(order.begin(), order.end(), 1);
    crs.setpermutation32(order);
    std::ostringstream unit;
    crs.setoutputunit(&unit);
    cout_capture out;
    crs.getspainv();
    EXPECT_TRUE(contains(out.text(), "Routine DPOTRF returned error code: 600 (matrix is not "
                                     "positive definite)"));
    expect_selected_inverse(before, crs, expected, 1e-12);
    EXPECT_EQ(crs.get(bad, bad), 0.0);
}

TEST(Spainv, PedigreeModelsWithAndWithoutInbreeding) {
    const pedigree_type ped = random_pedigree(300, 11);
    const std::vector<double> f = inbreeding(ped);
    ASSERT_GT(*std::max_element(f.begin(), f.end()), 0.1);
    const std::vector<double> x = record_weights(300, 5);
    for (const bool with_f : {false, true}) {
        const dmatrix c = animal_model(ped, with_f ? f : std::vector<double>{}, 0.4, x);
        crssparse crs = crs_of(c);
        const crssparse before = crs;
        spainv(crs);
        expect_selected_inverse(before, crs, dense_inverse(c), 1e-12);
        EXPECT_TRUE(crs.haspermutation32());
    }
}

TEST(Spainv, WideNodesWithManyRowsBelow) {
    // Eliminated first, a dense block of 300 columns (a node wider than a
    // panel) whose last column is coupled to 400 of 800 sparse columns (more
    // rows below the node than a panel).
    const std::int32_t nd = 300, n = 1100;
    dmatrix a = random_symmetric(n, 0.002, 12);
    const dmatrix dense = random_block(nd, nd, 13);
    for (std::int32_t i = 1; i <= nd; ++i)
        for (std::int32_t j = 1; j <= n; ++j)
            a(i, j) = a(j, i) = j <= nd ? dense(std::min(i, j), std::max(i, j)) : 0.0;
    std::mt19937_64 gen(14);
    std::vector<std::int32_t> sparse(n - nd - 1);
    std::iota(sparse.begin(), sparse.end(), nd + 2);
    std::shuffle(sparse.begin(), sparse.end(), gen);
    for (std::size_t k = 0; k < 400; ++k) a(nd, sparse[k]) = a(sparse[k], nd) = 0.1 + 0.001 * k;
    for (std::int32_t i = 1; i <= n; ++i) {
        double s = 1.0;
        for (std::int32_t j = 1; j <= n; ++j)
            if (j != i) s += std::abs(a(i, j));
        a(i, i) = s;
    }
    crssparse crs = crs_of(a);
    const crssparse before = crs;
    std::vector<std::int32_t> order(n);
    std::iota(order.begin(), order.end(), 1);

    // The node of the dense block and its rows, as the factor has them.
    metisgraph g = convertfromcrstometisgraph(before);
    spainv_factor f;
    spainv_times times{};
    {
        cout_capture quiet;
        get_ichol_spainv_crs(n, before.rowptr(), before.colval(), before.nzval(), g.xadj,
                             g.adjncy, order, false, f, 0, times);
    }
    std::vector<std::int32_t> inode(n + 1);
    std::int32_t minsize = 0, nnode = 0, maxnode = 0;
    super_nodes(minsize, n, f.xlnz, f.xnzsub, f.nzsub, nnode, inode, maxnode);
    EXPECT_EQ(inode[nnode - 1], nd);  // the first node is the dense block
    EXPECT_EQ(f.xlnz[nd] - f.xlnz[nd - 1], 400);

    crs.setpermutation32(order);
    spainv(crs);
    expect_selected_inverse(before, crs, dense_inverse(a), 1e-12);
}

TEST(Spainv, ZeroRowGivesAGeneralisedInverse) {
    const pedigree_type ped = random_pedigree(60, 2);
    dmatrix c = animal_model(ped, {}, 0.5, record_weights(60, 3));
    const std::int32_t n = 61, zero = 17;
    for (std::int32_t j = 1; j <= n; ++j) c(zero, j) = c(j, zero) = 0.0;
    // The inverse of the rest, with a zero row and column.
    const dmatrix expected = inverse_without(c, zero);
    for (const std::int32_t minsize : {0, 8}) {
        crssparse crs = crs_of(c);
        const crssparse before = crs;
        spainv(crs, minsize);
        expect_selected_inverse(before, crs, expected, 1e-12);
        EXPECT_EQ(crs.get(zero, zero), 0.0);
    }
}

TEST(Spainv, SingularPivotInAChainIsDroppedAsInSingleColumns) {
    // A = L D L' with L unit lower bidiagonal and a zero in D: in the natural
    // order every column is the child of the next one, and the pivot of
    // column 17 vanishes. The result is the inverse of A without row and
    // column 17.
    const std::int32_t n = 40, zero = 17;
    dmatrix a(n, n);
    for (std::int32_t i = 1; i <= n; ++i) {
        const double d = i == zero ? 0.0 : 1.0 + 0.01 * i;
        a(i, i) += d;
        if (i < n) {
            a(i + 1, i) += 0.5 * d;
            a(i, i + 1) += 0.5 * d;
            a(i + 1, i + 1) += 0.25 * d;
        }
    }
    const dmatrix expected = inverse_without(a, zero);
    crssparse crs = crs_of(a);
    const crssparse before = crs;
    std::vector<std::int32_t> order(n);
    std::iota(order.begin(), order.end(), 1);
    crs.setpermutation32(order);
    spainv(crs);
    expect_selected_inverse(before, crs, expected, 1e-12);
    EXPECT_EQ(crs.get(zero, zero), 0.0);
    std::vector<std::int32_t> kept;  // a given order is kept
    crs.getpermutation32(kept);
    EXPECT_EQ(kept, order);
}

TEST(Spainv, SingularDenseNodeIsSplitAfterDpotrfFails) {
    // A dense node whose second pivot vanishes: DPOTRF fails, the node is
    // worked column by column and the second column is dropped.
    dmatrix a(3, 3);
    a(1, 1) = 4.0;
    a(1, 2) = a(2, 1) = 2.0;
    a(2, 2) = 1.0;
    a(1, 3) = a(3, 1) = 1.0;
    a(2, 3) = a(3, 2) = 0.5;
    a(3, 3) = 3.0;
    crssparse crs = crs_of(a);
    crs.setpermutation32(std::vector<std::int32_t>{1, 2, 3});
    std::ostringstream unit;
    crs.setoutputunit(&unit);
    cout_capture out;
    crs.getspainv();
    EXPECT_TRUE(contains(out.text(),
                         "Routine DPOTRF returned error code: 2 (matrix is not positive definite)"));
    // Rows and columns 1 and 3 hold the inverse of that 2 x 2 block.
    dmatrix kept(2, 2);
    kept(1, 1) = 4.0;
    kept(1, 2) = kept(2, 1) = 1.0;
    kept(2, 2) = 3.0;
    const dmatrix inv = dense_inverse(kept);
    EXPECT_NEAR(crs.get(1, 1), inv(1, 1), 1e-14);
    EXPECT_NEAR(crs.get(1, 3), inv(1, 2), 1e-14);
    EXPECT_NEAR(crs.get(3, 3), inv(2, 2), 1e-14);
    EXPECT_EQ(crs.get(2, 2), 0.0);
    EXPECT_EQ(crs.get(1, 2), 0.0);
    EXPECT_EQ(crs.get(2, 3), 0.0);
}

TEST(Spainv, MinimalNodeSizeAboveOneGivesWiderNodesAndTheSameInverse) {
    const pedigree_type ped = random_pedigree(200, 21);
    const dmatrix c = animal_model(ped, inbreeding(ped), 0.3, record_weights(200, 1));
    const dmatrix inv = dense_inverse(c);
    const crssparse original = crs_of(c);
    const metisgraph g = convertfromcrstometisgraph(original);
    std::vector<std::int32_t> perm;
    original.getordering(perm);
    std::vector<std::int32_t> xlnz, xnzsub, nzsub;
    std::int32_t maxsub = original.rowptr().back() - 1, maxlnz = 0;
    symbolicfact(201, maxsub, g.xadj, g.adjncy, perm, xlnz, maxlnz, xnzsub, nzsub);
    std::int32_t nodes_default = 0;
    for (const std::int32_t minsize : {0, 4, 16}) {
        std::vector<std::int32_t> inode(202);
        std::int32_t smallest = minsize, nnode = 0, maxnode = 0;
        super_nodes(smallest, 201, xlnz, xnzsub, nzsub, nnode, inode, maxnode);
        if (minsize == 0)
            nodes_default = nnode;
        else {
            EXPECT_LT(nnode, nodes_default);
            EXPECT_GE(smallest, minsize);  // every closed node reached the minimum
        }
        crssparse crs = original;
        crs.setpermutation32(perm);
        spainv(crs, minsize);
        expect_selected_inverse(original, crs, inv, 1e-12);
    }
}

TEST(Spainv, NonSquareOrLowerStoredMatrixStops) {
    std::ostringstream unit;
    const std::string message = " ERROR: the CRS matrix must be square and upper triangular stored";

    crssparse rect = convertfromcootocrs(coo_of(random_dense(4, 6, 0.5, 1), false, false));
    rect.setoutputunit(&unit);
    EXPECT_TRUE(contains(stop_message(unit, [&] { rect.getspainv(); }), message));

    crssparse lower = convertfromcootocrs(coo_of(random_symmetric(5, 0.5, 2), false, true));
    lower.setoutputunit(&unit);
    EXPECT_TRUE(contains(stop_message(unit, [&] { lower.getspainv(); }), message));
}

TEST(Spainv, PedigreeModelOf200000EquationsAgreesWithCholmodSolves) {
    // A generated pedigree of overlapping generations with its inbreeding,
    // the mean as equation 1 and record weights.
    pedigree_type ped = generated_pedigree(199999, 0);
    const std::int32_t n = ped.nlength(), neq = n + 1;
    {
        log_capture quiet;
        ped.computeinbreeding_ped();
    }
    coosparse coo(neq, std::nullopt, neq, true);
    coo.setsymmetric(true);
    animal_model(ped, ped.inb, 0.25, record_weights(n, 77),
                 [&coo](std::int32_t i, std::int32_t j, double v) { coo.add(i, j, v); });
    crssparse crs = convertfromcootocrs(coo);
    crs.sort();
    std::vector<std::int32_t> perm;
    ordering_options quick;
    quick.nseps = 1;
    crs.getordering(perm, quick);
    crs.setpermutation32(perm);
    const crssparse before = crs;
    spainv(crs);

    // CHOLMOD's factor in the same order, and solves with unit vectors; on
    // one BLAS thread, which is never slow.
    struct one_blas_thread {
        int blas = openblas_get_num_threads();
        int omp = omp_get_max_threads();
        one_blas_thread() { openblas_set_num_threads(1); }
        ~one_blas_thread() {
            openblas_set_num_threads(blas);
            omp_set_num_threads(omp);
        }
    } serial;
    const auto ia = before.rowptr();
    const auto ja = before.colval();
    const auto a = before.nzval();
    const std::size_t nnz = static_cast<std::size_t>(before.totalnumberofelements());
    cholmod_common c;
    cholmod_l_start(&c);
    c.nmethods = 1;
    c.method[0].ordering = CHOLMOD_GIVEN;
    c.supernodal = CHOLMOD_SUPERNODAL;
    // Rows of the upper triangle are the columns of the lower one.
    cholmod_sparse* A = cholmod_l_allocate_sparse(static_cast<std::size_t>(neq),
                                                  static_cast<std::size_t>(neq), nnz, 1, 1, -1,
                                                  CHOLMOD_REAL, &c);
    auto* Ap = static_cast<SuiteSparse_long*>(A->p);
    auto* Ai = static_cast<SuiteSparse_long*>(A->i);
    auto* Ax = static_cast<double*>(A->x);
    for (std::size_t r = 0; r <= static_cast<std::size_t>(neq); ++r) Ap[r] = ia[r] - 1;
    for (std::size_t k = 0; k < nnz; ++k) {
        Ai[k] = ja[k] - 1;
        Ax[k] = a[k];
    }
    std::vector<SuiteSparse_long> given(perm.begin(), perm.end());
    for (SuiteSparse_long& p : given) --p;
    cholmod_factor* L = cholmod_l_analyze_p(A, given.data(), nullptr, 0, &c);
    ASSERT_NE(L, nullptr);
    cholmod_l_factorize(A, L, &c);
    ASSERT_EQ(c.status, CHOLMOD_OK);

    // The mean, the equations eliminated last (the widest nodes and the
    // longest rows), and a random sample.
    std::vector<std::int32_t> sample = {1};
    for (std::int32_t k = 0; k < 6; ++k) sample.push_back(perm[static_cast<std::size_t>(neq - 1 - 40 * k)]);
    std::mt19937_64 gen(3);
    std::uniform_int_distribution<std::int32_t> any(2, neq);
    for (int k = 0; k < 14; ++k) sample.push_back(any(gen));
    cholmod_dense* e = cholmod_l_zeros(static_cast<std::size_t>(neq), 1, CHOLMOD_REAL, &c);
    auto* ex = static_cast<double*>(e->x);
    for (const std::int32_t k : sample) {
        ex[k - 1] = 1.0;
        cholmod_dense* col = cholmod_l_solve(CHOLMOD_A, L, e, &c);
        ex[k - 1] = 0.0;
        ASSERT_NE(col, nullptr);
        const auto* z = static_cast<const double*>(col->x);
        EXPECT_NEAR(crs.get(k, k), z[k - 1], 1e-9 * std::abs(z[k - 1])) << "equation " << k;
        // The rest of row k on the pattern, against the scale of the row.
        const double scale = std::abs(z[k - 1]);
        for (std::int32_t p = ia[k - 1]; p < ia[k]; ++p) {
            const std::int32_t j = ja[static_cast<std::size_t>(p - 1)];
            EXPECT_NEAR(crs.nzval()[static_cast<std::size_t>(p - 1)], z[j - 1], 1e-9 * scale)
                << "element (" << k << ", " << j << ")";
        }
        cholmod_l_free_dense(&col, &c);
    }
    cholmod_l_free_dense(&e, &c);
    cholmod_l_free_factor(&L, &c);
    cholmod_l_free_sparse(&A, &c);
    cholmod_l_finish(&c);
}

// ---------------------------------------------------------------------------
// The symbolic factorisation

// The structure of every column of the factor by elimination on sets.
std::vector<std::set<std::int32_t>> structure_by_elimination(const dmatrix& a,
                                                             const std::vector<std::int32_t>& perm) {
    const std::int32_t n = static_cast<std::int32_t>(a.rows());
    std::vector<std::set<std::int32_t>> col(static_cast<std::size_t>(n) + 1);
    for (std::int32_t i = 1; i <= n; ++i)
        for (std::int32_t j = i + 1; j <= n; ++j)
            if (a(perm[i - 1], perm[j - 1]) != 0.0) col[i].insert(j);
    for (std::int32_t k = 1; k <= n; ++k) {
        if (col[k].empty()) continue;
        const std::int32_t parent = *col[k].begin();
        for (std::int32_t r : col[k])
            if (r != parent) col[parent].insert(r);
    }
    return col;
}

TEST(Smbfct, StructureMatchesEliminationFromAnyStartingSize) {
    for (unsigned seed = 1; seed <= 6; ++seed) {
        const std::int32_t n = 60;
        const dmatrix a = random_symmetric(n, 0.04, seed);
        const crssparse crs = crs_of(a);
        const metisgraph g = convertfromcrstometisgraph(crs);
        std::vector<std::int32_t> perm(n);
        std::iota(perm.begin(), perm.end(), 1);
        std::shuffle(perm.begin(), perm.end(), std::mt19937(seed));
        const auto expected = structure_by_elimination(a, perm);
        std::vector<std::int32_t> reference;
        for (const std::int32_t start : {1, 7, 1000}) {
            std::vector<std::int32_t> xlnz, xnzsub, nzsub;
            std::int32_t maxsub = start, maxlnz = 0;
            symbolicfact(n, maxsub, g.xadj, g.adjncy, perm, xlnz, maxlnz, xnzsub, nzsub);
            EXPECT_EQ(static_cast<std::size_t>(maxsub), nzsub.size());  // trimmed
            std::int64_t total = 0;
            for (std::int32_t k = 1; k <= n; ++k) {
                const std::int32_t len = xlnz[k] - xlnz[k - 1];
                std::set<std::int32_t> got;
                for (std::int32_t p = 0; p < len; ++p) got.insert(nzsub[xnzsub[k - 1] - 1 + p]);
                EXPECT_EQ(got, expected[k]) << "seed " << seed << " column " << k;
                EXPECT_EQ(got.size(), static_cast<std::size_t>(len));
                total += len;
            }
            EXPECT_EQ(maxlnz, total);
            if (reference.empty())
                reference = nzsub;
            else
                EXPECT_EQ(nzsub, reference);  // the size we start from changes nothing
        }
    }
}

// ---------------------------------------------------------------------------
// The kernels on a hand-made factor

TEST(SuperSparsinv, FailingDpotriStops) {
    // One node of two columns whose factor has a zero pivot.
    std::vector<std::int32_t> xlnz = {1, 2, 2}, xnzsub = {1, 2, 2}, nzsub = {2};
    std::vector<double> xspars = {0.5}, diag = {1.0, 0.0};
    std::vector<std::int32_t> inode = {2, 0, 0};
    const std::string text = stop_message_on_cout(
        [&] { super_sparsinv(2, xlnz, xspars, xnzsub, nzsub, diag, 1, inode); });
    EXPECT_TRUE(contains(text, "Routine DPOTRI returned error code 2"));
}

TEST(SuperSparsinv, RowwiseProductWithoutSEqualsTheBlockedOne) {
    const pedigree_type ped = random_pedigree(250, 4);
    const crssparse crs = crs_of(animal_model(ped, inbreeding(ped), 0.2, record_weights(250, 9)));
    metisgraph g = convertfromcrstometisgraph(crs);
    std::vector<std::int32_t> perm;
    crs.getordering(perm);
    const std::int32_t n = 251;
    spainv_factor f;
    spainv_times times{};
    cout_capture quiet;
    get_ichol_spainv_crs(n, crs.rowptr(), crs.colval(), crs.nzval(), g.xadj, g.adjncy, perm,
                         false, f, 4, times);
    std::vector<std::int32_t> inode(n + 1);
    std::int32_t minsize = 4, nnode = 0, maxnode = 0;
    super_nodes(minsize, n, f.xlnz, f.xnzsub, f.nzsub, nnode, inode, maxnode);
    ASSERT_GT(maxnode, 1);
    std::vector<double> x1(f.xspars.begin(), f.xspars.end()), d1 = f.diag;
    std::vector<double> x2 = x1, d2 = d1;
    super_sparsinv(n, f.xlnz, x1, f.xnzsub, f.nzsub, d1, nnode, inode);
    super_sparsinv(n, f.xlnz, x2, f.xnzsub, f.nzsub, d2, nnode, inode, 0);
    for (std::size_t k = 0; k < x1.size(); ++k) EXPECT_NEAR(x1[k], x2[k], 1e-12 * std::abs(x1[k]) + 1e-15);
    for (std::size_t k = 0; k < d1.size(); ++k) EXPECT_NEAR(d1[k], d2[k], 1e-12 * d1[k]);
}

// ---------------------------------------------------------------------------
// The tolerant triangular solve

TEST(Dgtrsm, AgreesWithDtrsmOnRegularTriangles) {
    const std::int32_t m = 5, n = 4;
    for (const char side : {'L', 'R'})
        for (const char uplo : {'U', 'L'})
            for (const char trans : {'N', 'T'})
                for (const char diag : {'N', 'U'}) {
                    const std::int32_t k = side == 'L' ? m : n;
                    dmatrix a = random_block(k, k, 7);
                    for (std::int32_t i = 1; i <= k; ++i) a(i, i) = 2.0 + i;
                    const dmatrix b0 = random_block(m, n, 8);
                    dmatrix b1 = b0, b2 = b0;
                    dgtrsm(side, uplo, trans, diag, m, n, 0.7, a.data(), k, b1.data(), m);
                    cblas_dtrsm(CblasColMajor, side == 'L' ? CblasLeft : CblasRight,
                                uplo == 'U' ? CblasUpper : CblasLower,
                                trans == 'N' ? CblasNoTrans : CblasTrans,
                                diag == 'N' ? CblasNonUnit : CblasUnit, m, n, 0.7, a.data(), k,
                                b2.data(), m);
                    EXPECT_LT(max_abs_diff(b1, b2), 1e-13)
                        << side << uplo << trans << diag;
                }
}

TEST(Dgtrsm, SingularPivotZeroesItsPartAndBadArgumentsStop) {
    // B = B inverse(L'), L lower with a pivot at 1e-10: the column of that
    // pivot comes out zero, the others as with the pivot's column removed.
    dmatrix l(2, 2);
    l(1, 1) = 2.0;
    l(2, 1) = 0.0;
    l(2, 2) = 1e-10;
    dmatrix b(3, 2, 1.0);
    dgtrsm('R', 'L', 'T', 'N', 3, 2, 1.0, l.data(), 2, b.data(), 3);
    for (std::int32_t i = 1; i <= 3; ++i) {
        EXPECT_EQ(b(i, 1), 0.5);
        EXPECT_EQ(b(i, 2), 0.0);
    }
    EXPECT_TRUE(contains(stop_message_on_cout([&] {
                             dgtrsm('X', 'L', 'T', 'N', 3, 2, 1.0, l.data(), 2, b.data(), 3);
                         }),
                         "parameter number  1 had an illegal value"));
    EXPECT_TRUE(contains(stop_message_on_cout([&] {
                             dgtrsm('R', 'L', 'T', 'N', 3, 2, 1.0, l.data(), 2, b.data(), 2);
                         }),
                         "parameter number 11 had an illegal value"));
}

// ---------------------------------------------------------------------------
// The factorisations

TEST(Getchol, FactorTimesItsTransposeIsThePermutedMatrix) {
    const pedigree_type ped = random_pedigree(80, 6);
    const dmatrix c = animal_model(ped, inbreeding(ped), 0.5, record_weights(80, 6));
    const std::int32_t n = 81;
    crssparse chol = crs_of(c);
    crssparse ichol = chol;
    std::ostringstream unit;
    chol.setoutputunit(&unit);
    ichol.setoutputunit(&unit);
    {
        cout_capture quiet;
        chol.getchol();
        ichol.getichol();
    }
    std::vector<std::int32_t> perm;
    chol.getpermutation32(perm);

    // U' U = P C P' with U = the stored upper factor.
    const dmatrix u = dense_of(chol);
    dmatrix utu(n, n);
    cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, n, n, n, 1.0, u.data(), n, u.data(), n,
                0.0, utu.data(), n);
    dmatrix pcp(n, n);
    for (std::int32_t i = 1; i <= n; ++i)
        for (std::int32_t j = 1; j <= n; ++j) pcp(i, j) = c(perm[i - 1], perm[j - 1]);
    EXPECT_LT(max_abs_diff(utu, pcp), 1e-12 * 100);

    // The incomplete factor: the elements of U on the permuted pattern of C.
    const dmatrix iu = dense_of(ichol);
    for (std::int32_t i = 1; i <= n; ++i)
        for (std::int32_t j = i; j <= n; ++j) {
            const bool in_pattern = i == j || pcp(i, j) != 0.0;
            EXPECT_EQ(iu(i, j), in_pattern ? u(i, j) : 0.0) << i << ", " << j;
        }
}

}  // namespace
}  // namespace krel
