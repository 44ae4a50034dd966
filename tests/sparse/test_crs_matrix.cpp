#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <numeric>
#include <random>
#include <tuple>

#include "sparse/sparse_matrix.h"
#include "sparse_test_support.h"
#include "test_support.h"
#include "util/dense_linear_algebra.h"

namespace krel {
namespace {

using namespace krel::testing;

template <class CRS>
void expect_rows_ascending(const CRS& crs) {
    const auto ia = crs.rowptr();
    const auto ja = crs.colval();
    for (std::int32_t i = 1; i <= crs.getdim(1); ++i)
        for (auto k = ia[i - 1]; k + 1 < ia[i]; ++k) ASSERT_LT(ja[k - 1], ja[k]) << "row " << i;
}

// Dense log10 determinant of a symmetric positive definite matrix.
double dense_log10det(dmatrix a) {
    chols8(a);
    double s = 0.0;
    for (dmatrix::index_type k = 1; k <= a.rows(); ++k) s += 2.0 * std::log10(a(k, k));
    return s;
}

TEST(Crssparse, ConversionFromCooReservesTheDiagonal) {
    dmatrix up = random_dense(9, 9, 0.3, 4, true);
    for (int j = 1; j <= 9; ++j) up(5, j) = 0.0;  // an empty row
    up(2, 2) = 0.0;                               // a row without its diagonal
    up(2, 7) = 1.0;
    coosparse coo = coo_of(up, true, true, 4);
    coo.setpermutation32(std::vector<std::int32_t>{9, 8, 7, 6, 5, 4, 3, 2, 1});
    const crssparse crs = convertfromcootocrs(coo);

    const auto ia = crs.rowptr();
    const auto ja = crs.colval();
    std::int64_t missing = 0;
    for (std::int32_t i = 1; i <= 9; ++i) {
        EXPECT_EQ(ja[ia[i - 1] - 1], i);
        missing += up(i, i) == 0.0;
    }
    EXPECT_EQ(ia[5] - ia[4], 1);
    EXPECT_EQ(crs.nzval()[ia[4] - 1], 0.0);
    EXPECT_EQ(crs.totalnumberofelements(), coo.totalnumberofelements() + missing);
    EXPECT_EQ(max_abs_diff(dense_of(crs), symmetric_of_upper(up)), 0.0);

    // An empty table still gives one place in each row.
    const crssparse empty = convertfromcootocrs(coosparse(6));
    EXPECT_EQ(empty.totalnumberofelements(), 6);
    for (double v : empty.nzval()) EXPECT_EQ(v, 0.0);
}

TEST(Crssparse, ConversionOfARectangleReservesTheLastColumn) {
    dmatrix d = random_dense(5, 8, 0.4, 9);
    for (int i = 1; i <= 5; ++i) d(i, 8) = 0.0;
    d(2, 8) = 3.0;  // this one takes its row's reserved place
    for (int j = 1; j <= 8; ++j) d(4, j) = 0.0;
    const coosparse coo = coo_of(d, false, false);
    const crssparse crs = convertfromcootocrs(coo);
    const crssparse64 crs64 = convertfromcootocrs64(coo);
    const auto ia = crs.rowptr();
    for (std::int32_t i = 1; i <= 5; ++i) EXPECT_EQ(crs.colval()[ia[i - 1] - 1], 8);
    EXPECT_EQ(crs.nzval()[ia[1] - 1], 3.0);
    EXPECT_EQ(ia[4] - ia[3], 1);
    EXPECT_EQ(crs.totalnumberofelements(), coo.totalnumberofelements() + 4);
    EXPECT_EQ(max_abs_diff(dense_of(crs), d), 0.0);

    EXPECT_TRUE(std::equal(crs.rowptr().begin(), crs.rowptr().end(), crs64.rowptr().begin()));
    EXPECT_TRUE(std::equal(crs.colval().begin(), crs.colval().end(), crs64.colval().begin()));
    EXPECT_EQ(max_abs_diff(dense_of(crs64), d), 0.0);

    // Back to the hash: the reserved zeros are not added.
    const coosparse back = convertfromcrstocoo(crs);
    const coosparse back64 = convertfromcrs64tocoo(crs64);
    EXPECT_EQ(back.totalnumberofelements(), coo.totalnumberofelements());
    EXPECT_EQ(max_abs_diff(dense_of(back), d), 0.0);
    EXPECT_EQ(max_abs_diff(dense_of(back64), d), 0.0);
}

TEST(Crssparse, SortHandlesAdverseOrders) {
    for (std::int32_t n : {2, 21, 22, 1000}) {
        std::vector<std::vector<std::int32_t>> orders;
        std::vector<std::int32_t> up(static_cast<std::size_t>(n));
        std::iota(up.begin(), up.end(), 1);
        orders.push_back(up);
        orders.emplace_back(up.rbegin(), up.rend());
        std::vector<std::int32_t> organ;  // 1 3 5 ... 6 4 2
        for (std::int32_t k = 1; k <= n; k += 2) organ.push_back(k);
        for (std::int32_t k = n - (n % 2); k >= 2; k -= 2) organ.push_back(k);
        orders.push_back(organ);
        std::mt19937 gen(static_cast<unsigned>(n));
        std::shuffle(up.begin(), up.end(), gen);
        orders.push_back(up);
        for (const auto& cols : orders) {
            crssparse row(1, n, n);
            std::vector<double> vals(cols.begin(), cols.end());
            for (double& v : vals) v *= 0.5;
            row.external(std::vector<std::int32_t>{1, n + 1}, cols, vals);
            row.sort();
            for (std::int32_t k = 0; k < n; ++k) {
                ASSERT_EQ(row.colval()[k], k + 1) << "n = " << n;
                ASSERT_EQ(row.nzval()[k], 0.5 * (k + 1));
            }
        }
    }
    // The flag alone decides: a matrix marked sorted is not touched.
    crssparse row(1, 3, 3);
    row.external(std::vector<std::int32_t>{1, 4}, std::vector<std::int32_t>{3, 1, 2},
                 std::vector<double>{3, 1, 2});
    row.setsorted(true);
    row.sort();
    EXPECT_EQ(row.colval()[0], 3);
}

TEST(Crssparse, AddAndSetChangeValuesOnlyInThePattern) {
    dmatrix up = random_dense(6, 6, 0.4, 12, true, true);
    up(1, 6) = 0.0;
    crssparse crs = convertfromcootocrs(coo_of(up, true, true));
    std::int32_t status = 99;
    crs.add(2, 2, 1.5, status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(crs.get(2, 2), up(2, 2) + 1.5);
    const std::vector<double> before(crs.nzval().begin(), crs.nzval().end());
    crs.set(1, 6, 4.0, status);
    EXPECT_EQ(status, -1);
    crs.add(1, 6, 4.0, status);
    EXPECT_EQ(status, -1);
    crs.add(1, 6, 4.0);  // without status the write is lost silently
    EXPECT_TRUE(std::equal(before.begin(), before.end(), crs.nzval().begin()));
    // Dropped before the pattern is searched: status stays 0.
    crs.add(6, 1, 4.0, status);
    EXPECT_EQ(status, 0);
    crs.add(2, 2, 1e-17, status);
    EXPECT_EQ(status, 0);
    crs.add(7, 1, 1.0, status);
    EXPECT_EQ(status, 0);
    crs.set(3, 3, 0.0, status);  // set stores a zero
    EXPECT_EQ(status, 0);
    EXPECT_EQ(crs.get(3, 3), 0.0);
    // The symmetric matrix answers for both triangles.
    EXPECT_EQ(crs.get(5, 2), crs.get(2, 5));

    crssparse unfilled(4, 10);
    EXPECT_EQ(unfilled.totalnumberofelements(), -11);
    EXPECT_EQ(unfilled.rowptr()[4], -10);
    unfilled.add(2, 3, 1.0, status);
    EXPECT_EQ(status, -10);
    unfilled.set(2, 3, 1.0, status);
    EXPECT_EQ(status, -10);
    EXPECT_EQ(unfilled.get(2, 3), 0.0);
}

TEST(Crssparse, ProductsOfAllKindsMatchDenseProducts) {
    for (const auto& [upper, symmetric, m, n] : {std::tuple{true, true, 9, 9}, std::tuple{true, false, 7, 10},
                                                 std::tuple{false, false, 8, 6}}) {
        const dmatrix stored = random_dense(m, n, 0.5, 31, upper);
        crssparse crs = convertfromcootocrs(coo_of(stored, upper, symmetric));
        for (bool sorted : {false, true}) {
            if (sorted) crs.sort();
            SCOPED_TRACE(::testing::Message() << upper << symmetric << sorted);
            expect_products_match(crs, symmetric ? symmetric_of_upper(stored) : stored, "Nt");
        }
    }
}

TEST(Crssparse, ProductsRefuseUnsupportedMatrices) {
    std::ostringstream log;
    crssparse crs = convertfromcootocrs(coo_of(random_dense(4, 4, 0.5, 2), false, false));
    crs.setoutputunit(&log);
    crs.setsymmetric();
    std::vector<double> x(4, 1.0), y(4, 0.0);
    const std::string text = stop_message(log, [&] { crs.multgenv(1.0, 'N', x, 0.0, y); });
    EXPECT_EQ(text.rfind(" Type of the matrix           : CRS\n", 0), 0u);
    EXPECT_NE(text.find("  Original status             : T\n"), std::string::npos);
    EXPECT_NE(text.find("\n  ERROR (multbyv): unsupported format\n"), std::string::npos);
    crs.setsymmetric(false);
    std::vector<double> y3(3);
    EXPECT_EQ(stop_message(log, [&] { crs.multgenv(1.0, 'N', x, 0.0, y3); }),
              "  ERROR (mult): wrong dimensions\n");
    EXPECT_EQ(stop_message(log, [&] { crs.multgenv(1.0, 'X', x, 0.0, y); }),
              "  ERROR (mult): wrong transposition\n");

    crssparse64 c64 = convertfromcootocrs64(coo_of(random_dense(4, 4, 0.5, 2), false, false));
    c64.setoutputunit(&log);
    log.str({});
    std::vector<double> x4{1, 2, 3, 4};
    c64.multgenv(2.0, 'N', x4, 1.0, y);
    EXPECT_EQ(y, x4);
    dmatrix xm = random_block(4, 2, 1), ym(4, 2);
    c64.multgenm(2.0, 'N', xm, 1.0, ym);
    EXPECT_EQ(max_abs_diff(ym, xm), 0.0);
    EXPECT_EQ(log.str(),
              " Warning: mult not supported by crssparse64! Array returned = x\n"
              " Warning: mult not supported by crssparse64! Array returned = x\n");
}

TEST(Crssparse, DiagonalVectorBandAndSubmatrix) {
    const dmatrix up = random_dense(8, 8, 0.6, 14, true);
    crssparse crs = convertfromcootocrs(coo_of(up, true, true));
    crs.sort();
    const std::vector<double> v = crs.diag_vect();
    for (int i = 1; i <= 8; ++i) EXPECT_EQ(v[i - 1], up(i, i));
    const crssparse band = crs.diag_mat(2);
    EXPECT_TRUE(band.isupperstorage() && band.issorted());
    for (int i = 1; i <= 8; ++i) {
        EXPECT_EQ(band.colval()[band.rowptr()[i - 1] - 1], i);
        for (int j = 1; j <= 8; ++j)
            EXPECT_EQ(band.get(i, j), j >= i && j <= i + 2 ? up(i, j) : 0.0);
    }
    const crssparse sub = crs.submatrix(2, 5, 4, 8);
    const dmatrix full = symmetric_of_upper(up);
    for (int i = 1; i <= 4; ++i)
        for (int j = 1; j <= 5; ++j) EXPECT_EQ(sub.get(i, j), full(i + 1, j + 3));
    expect_rows_ascending(sub);
}

TEST(Crssparse, ExternalNeedsArraysOfTheSameSizes) {
    std::ostringstream log;
    crssparse crs(3, 4, std::nullopt, std::nullopt, &log);
    const std::vector<std::int32_t> ia{1, 2, 4, 5}, ja{1, 1, 2, 3};
    const std::vector<double> a{1, 2, 3, 4};
    EXPECT_EQ(stop_message(log, [&] { crs.external(ia, std::vector<std::int32_t>{1}, a); }),
              " ERROR: The provided array ja is of a different size!\n");
    EXPECT_EQ(stop_message(log, [&] { crs.external(ia, ja, std::vector<double>{1}); }),
              " ERROR: The provided array a is of a different size!\n");
    crs.external(ia, ja, a);
    EXPECT_EQ(crs.get(2, 2), 3.0);
}

TEST(Crssparse, SaveAndLoadBothWidths) {
    scratch_dir dir;
    const dmatrix d = random_dense(5, 7, 0.5, 3);
    crssparse crs = convertfromcootocrs(coo_of(d, false, false));
    crssparse64 crs64 = convertfromcootocrs64(coo_of(d, false, false));
    const std::string f20 = (dir / "m20").string(), f21 = (dir / "m21").string();
    crs.save(f20);
    crs64.save(f21);

    const crssparse l = crssparse::load(f20);
    const crssparse64 l64 = crssparse64::load(f21);
    EXPECT_EQ(l.getdim(2), 7);
    EXPECT_FALSE(l.isupperstorage());
    EXPECT_TRUE(std::equal(l.rowptr().begin(), l.rowptr().end(), crs.rowptr().begin()));
    EXPECT_TRUE(std::equal(l.colval().begin(), l.colval().end(), crs.colval().begin()));
    EXPECT_TRUE(std::equal(l.nzval().begin(), l.nzval().end(), crs.nzval().begin()));
    EXPECT_EQ(max_abs_diff(dense_of(l64), d), 0.0);

    EXPECT_EQ(stop_message_on_cout([&] { (void)crssparse::load(f21); }),
              " ERROR: the proposed file is not a CRS file\n");
    EXPECT_EQ(stop_message_on_cout([&] { (void)crssparse64::load(f20); }),
              " ERROR: the proposed file is not a CRS64 file\n");

    // A column index out of range is refused before anything can use it.
    std::string bytes = read_text(f20);
    const std::size_t ja_start = 4 + 4 + 4 + 8 + 4 + 4 * 6;
    const std::int32_t bad = 99;
    bytes.replace(ja_start, 4, reinterpret_cast<const char*>(&bad), 4);
    std::ofstream(dir / "bad", std::ios::binary) << bytes;
    EXPECT_EQ(stop_message_on_cout([&] { (void)crssparse::load((dir / "bad").string()); }),
              " ERROR: the proposed file is not a CRS file\n");
}

TEST(Crssparse, LogDeterminantFromTheCholeskyFactor) {
    const std::int32_t n = 30;
    const dmatrix up = upper_of(random_symmetric(n, 0.15, 40));
    crssparse crs = convertfromcootocrs(coo_of(up, true, true));
    double logdet = 0.0;
    std::int32_t rank = 0;
    crs.getlogdetchol(logdet, rank);
    EXPECT_EQ(rank, n);
    EXPECT_NEAR(logdet, dense_log10det(symmetric_of_upper(up)), 1e-10);
    EXPECT_FALSE(crs.isdecomposed());

    // A given order gives the same determinant.
    std::vector<std::int32_t> reversed(n);
    std::iota(reversed.rbegin(), reversed.rend(), 1);
    crs.setpermutation32(reversed);
    double again = 0.0;
    crs.getlogdetchol(again, rank);
    EXPECT_NEAR(again, logdet, 1e-10);

    // A zero row and column and a dependent pair: both drop one column.
    dmatrix sing = up;
    for (int j = 1; j <= n; ++j) sing(std::min(j, 7), std::max(j, 7)) = 0.0;
    for (int j = 1; j <= n; ++j) sing(std::min(j, 12), std::max(j, 12)) = 0.0;
    sing(12, 12) = sing(3, 3);
    for (int j = 1; j <= n; ++j)
        if (j != 3 && j != 12)
            sing(std::min(j, 12), std::max(j, 12)) = sing(std::min(j, 3), std::max(j, 3));
    sing(3, 12) = sing(3, 3);
    crssparse s = convertfromcootocrs(coo_of(sing, true, true));
    s.getlogdetchol(logdet, rank);
    EXPECT_EQ(rank, n - 2);
    // The kept part: without the zero row and without one of the twins.
    dmatrix kept(n - 2, n - 2);
    const dmatrix sfull = symmetric_of_upper(sing);
    std::vector<int> rows;
    for (int i = 1; i <= n; ++i)
        if (i != 7 && i != 12) rows.push_back(i);
    for (int i = 1; i <= n - 2; ++i)
        for (int j = 1; j <= n - 2; ++j) kept(i, j) = sfull(rows[i - 1], rows[j - 1]);
    EXPECT_NEAR(logdet, dense_log10det(kept), 1e-8);

    // A matrix that already holds a factor is read as it is.
    crssparse f = convertfromcootocrs(coo_of(symmetric_of_upper(dmatrix(3, 3)), true, true));
    f.set(1, 1, 2.0);
    f.set(3, 3, 5.0);
    f.setdecomposed(true);
    f.getlogdetchol(logdet, rank);
    EXPECT_EQ(rank, 2);
    EXPECT_NEAR(logdet, 2.0 * std::log10(10.0), 1e-14);
}

TEST(Crssparse, HarvilleApproachesTheDiagonalOfTheInverse) {
    const std::int32_t n = 6;
    dmatrix up = upper_of(random_symmetric(n, 0.7, 77));
    crssparse crs = convertfromcootocrs(coo_of(up, true, true));
    dmatrix inv = symmetric_of_upper(up);
    invsym(inv);
    const std::vector<double> est = crs.harville(20000, 5, 100);
    for (int i = 1; i <= n; ++i) EXPECT_NEAR(est[i - 1] / inv(i, i), 1.0, 0.02) << i;
    EXPECT_EQ(crs.harville(50, 5, 10), crs.harville(50, 5, 10));
    EXPECT_NE(crs.harville(50, 5, 10), crs.harville(50, 6, 10));

    std::ostringstream log;
    crssparse rect(2, 2, 3, std::nullopt, &log);
    double logdet = 0.0;
    std::int32_t rank = 0;
    EXPECT_EQ(stop_message(log, [&] { (void)rect.harville(10, 1); }),
              " ERROR: harville needs a square matrix\n");
    EXPECT_EQ(stop_message(log, [&] { rect.getlogdetchol(logdet, rank); }),
              " ERROR: the log-determinant needs a square matrix\n");
}

}  // namespace
}  // namespace krel
