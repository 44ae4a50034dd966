#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <random>
#include <tuple>
#include <set>

#include "sparse/sparse_matrix.h"
#include "sparse/sparse_stream_io.h"
#include "sparse_test_support.h"
#include "test_support.h"

namespace krel {
namespace {

using namespace krel::testing;

// Occupied slots of the table, each key once.
std::map<std::pair<std::int32_t, std::int32_t>, double> table_of(const coosparse& c) {
    std::map<std::pair<std::int32_t, std::int32_t>, double> keys;
    const auto ij = c.ij_table();
    const auto a = c.values();
    for (std::int64_t k = 0; k < c.getnel(); ++k) {
        if (ij[2 * k] == 0) continue;
        EXPECT_TRUE(keys.emplace(std::pair(ij[2 * k], ij[2 * k + 1]), a[k]).second)
            << "duplicate key " << ij[2 * k] << "," << ij[2 * k + 1];
    }
    return keys;
}

TEST(Coosparse, TinyValuesAndTheLowerTriangle) {
    coosparse c(4, std::nullopt, 16, true);
    c.add(1, 2, 1e-17);
    c.add(1, 2, -2.2e-16);
    EXPECT_EQ(c.totalnumberofelements(), 0);
    c.add(1, 2, sparse_tol);  // the tolerance itself is a value
    EXPECT_EQ(c.totalnumberofelements(), 1);
    c.set(2, 3, 1e-17);
    EXPECT_EQ(c.totalnumberofelements(), 2);
    EXPECT_EQ(c.get(2, 3), 1e-17);

    // Below the diagonal of an upper-stored matrix nothing is stored...
    c.add(3, 1, 5.0);
    c.set(4, 2, 5.0);
    c.add(0, 1, 5.0);
    c.add(1, 5, 5.0);
    EXPECT_EQ(c.totalnumberofelements(), 2);
    // ...and the mirror answers only for a symmetric matrix.
    c.add(1, 3, 7.0);
    EXPECT_EQ(c.get(3, 1), 0.0);
    c.setsymmetric();
    EXPECT_EQ(c.get(3, 1), 7.0);
    EXPECT_EQ(c.get(1, 3), 7.0);
    EXPECT_EQ(c.get(4, 4), 0.0);
}

TEST(Coosparse, GrowthDropsTheTinySlotsAndKeepsFilledRight) {
    coosparse c(100, std::nullopt, 8);
    c.add(1, 1, 1.0);
    c.add(1, 1, -1.0);  // cancels to zero and stays in its slot
    c.set(2, 2, 0.0);   // a stored zero
    c.add(3, 3, 3.0);
    c.add(4, 4, 4.0);
    c.add(5, 5, 5.0);
    EXPECT_EQ(c.totalnumberofelements(), 5);
    c.add(6, 6, 6.0);  // 6 / 8 = 0.75: no growth yet
    EXPECT_EQ(c.getnel(), 8);
    EXPECT_EQ(c.totalnumberofelements(), 6);
    c.add(7, 7, 7.0);  // 7 / 8 > 0.8: grows
    EXPECT_EQ(c.getnel(), 16);
    // Four slots held at least the tolerance, plus the new key.
    EXPECT_EQ(c.totalnumberofelements(), 5);
    const auto keys = table_of(c);
    EXPECT_EQ(keys.size(), 5u);
    EXPECT_EQ(keys.count({1, 1}) + keys.count({2, 2}), 0u);
    for (int i = 3; i <= 7; ++i) EXPECT_EQ(c.get(i, i), i);
}

TEST(Coosparse, ThousandsOfRandomAddsMatchAMap) {
    std::mt19937 gen(17);
    std::uniform_int_distribution<std::int32_t> idx(1, 300);
    std::uniform_real_distribution<double> val(-1.0, 1.0);
    coosparse c(300, std::nullopt, 2);
    std::map<std::pair<std::int32_t, std::int32_t>, double> ref;
    for (int n = 0; n < 20000; ++n) {
        const std::int32_t i = idx(gen), j = idx(gen);
        const double v = val(gen);
        c.add(i, j, v);
        ref[{i, j}] += v;
    }
    const auto keys = table_of(c);
    EXPECT_EQ(static_cast<std::int64_t>(keys.size()), c.totalnumberofelements());
    EXPECT_EQ(c.getnel() & (c.getnel() - 1), 0);
    EXPECT_LE(c.totalnumberofelements(), c.getnel() * 8 / 10 + 1);
    for (const auto& [key, v] : ref) ASSERT_NEAR(c.get(key.first, key.second), v, 1e-12);
    for (const auto& [key, v] : keys) EXPECT_EQ(ref.count(key), 1u);
}

TEST(Coosparse, OneSlotTableCannotTakeASecondKey) {
    std::ostringstream log;
    coosparse c(3, std::nullopt, 1, std::nullopt, &log);
    c.add(1, 1, 1.0);  // the growth of a one-slot table gives one slot again
    EXPECT_EQ(c.getnel(), 1);
    EXPECT_EQ(c.get(1, 1), 1.0);
    cout_capture out;
    EXPECT_THROW(c.add(2, 2, 1.0), error_stop);
    EXPECT_EQ(log.str(), " ERROR: unexpected\n");
    EXPECT_NE(out.text().find(" Warning: the maximum number of searches was reached!"),
              std::string::npos);
}

TEST(Coosparse, DiagonalVectorAndBand) {
    const dmatrix d = random_dense(6, 8, 0.6, 3);
    const coosparse c = coo_of(d, false, false);
    const std::vector<double> v = c.diag_vect();
    ASSERT_EQ(v.size(), 6u);
    for (int i = 1; i <= 6; ++i) EXPECT_EQ(v[i - 1], d(i, i));

    const coosparse band = c.diag_mat(2);
    EXPECT_EQ(band.getdim(1), 6);
    EXPECT_EQ(band.getdim(2), 6);
    EXPECT_TRUE(band.isupperstorage());
    for (int i = 1; i <= 6; ++i)
        for (int j = 1; j <= 6; ++j)
            EXPECT_EQ(band.get(i, j), j >= i && j <= i + 2 ? d(i, j) : 0.0) << i << "," << j;
}

TEST(Coosparse, ScalePermutationsAndSymmetryRefusals) {
    std::ostringstream log;
    coosparse c(3, 2, 8, std::nullopt, &log);
    c.add(1, 2, 2.0);
    c.scale(-1.5);
    EXPECT_EQ(c.get(1, 2), -3.0);
    EXPECT_EQ(stop_message(log, [&] { c.setpermutation32(std::vector<std::int32_t>{1, 2}); }),
              " ERROR: The permutation array has a wrong size.\n");
    std::vector<std::int64_t> p64;
    EXPECT_EQ(stop_message(log, [&] { c.getpermutation64(p64); }),
              " ERROR: The permutation array (int64) is not allocated.\n");
    c.setpermutation64(std::vector<std::int64_t>{2, 3, 1});
    c.getpermutation64(p64);
    EXPECT_EQ(p64, (std::vector<std::int64_t>{2, 3, 1}));
    EXPECT_EQ(stop_message(log, [&] { c.setsymmetric(true); }),
              " ERROR: the sparse matrix is not square and cannot be set to symmetric as "
              "requested!\n");
}

// All three kinds against dense products, both transpositions, vectors and
// blocks of right-hand sides.
TEST(Coosparse, ProductsOfAllKindsMatchDenseProducts) {
    for (const auto& [upper, symmetric, m, n] : {std::tuple{true, true, 7, 7}, std::tuple{true, false, 6, 9},
                                                 std::tuple{false, false, 8, 5}}) {
        const dmatrix stored = random_dense(m, n, 0.5, 11, upper);
        SCOPED_TRACE(::testing::Message() << upper << symmetric);
        expect_products_match(coo_of(stored, upper, symmetric, 4), symmetric ? symmetric_of_upper(stored) : stored,
                              "NnTt");
    }
}

TEST(Coosparse, ProductsRefuseWrongArguments) {
    std::ostringstream log;
    coosparse c(3, 4, 8, std::nullopt, &log);
    c.add(1, 1, 1.0);
    std::vector<double> x3(3), x4(4), y3(3), y4(4);
    EXPECT_EQ(stop_message(log, [&] { c.multgenv(1.0, 'T', x4, 0.0, y3); }),
              "  ERROR (mult): wrong dimensions\n");
    c.multgenv(1.0, 'T', x3, 0.0, y4);
    EXPECT_EQ(stop_message(log, [&] { c.multgenv(1.0, 'C', x4, 0.0, y3); }),
              "  ERROR (mult): wrong transposition\n");
    dmatrix xm(4, 2), ym(3, 3);
    EXPECT_EQ(stop_message(log, [&] { c.multgenm(1.0, 'N', xm, 0.0, ym); }),
              "  ERROR (mult): wrong dimensions\n");

    coosparse s(3, std::nullopt, 8, false, &log);
    s.setsymmetric();
    const std::string text = stop_message(log, [&] { s.multgenv(1.0, 'N', x3, 0.0, y3); });
    EXPECT_EQ(text.rfind(" Type of the matrix           : COO\n", 0), 0u) << text;
    EXPECT_NE(text.find("\n  ERROR (mult): unsupported format\n"), std::string::npos);
}

TEST(Coosparse, SubmatricesOfRangesAndIndices) {
    std::ostringstream log;
    const dmatrix up = random_dense(8, 8, 0.5, 21, true, true);
    const coosparse c = coo_of(up, true, true);
    const dmatrix full = symmetric_of_upper(up);

    const coosparse r = c.submatrix(2, 6, 3, 8);
    EXPECT_EQ(r.getdim(1), 5);
    EXPECT_EQ(r.getdim(2), 6);
    for (int i = 1; i <= 5; ++i)
        for (int j = 1; j <= 6; ++j) EXPECT_EQ(r.get(i, j), full(i + 1, j + 2));

    const coosparse s = c.submatrix(3, 7, 3, 7, true);
    EXPECT_TRUE(s.issymmetric() && s.isupperstorage());
    for (int i = 1; i <= 5; ++i)
        for (int j = 1; j <= 5; ++j) EXPECT_EQ(s.get(i, j), full(i + 2, j + 2));

    const std::vector<std::int32_t> idx{7, 2, 5};
    const coosparse x = c.submatrix_index(idx);
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j) EXPECT_EQ(x.get(i, j), full(idx[i - 1], idx[j - 1]));

    coosparse g(4, 5, 8, std::nullopt, &log);
    EXPECT_EQ(stop_message(log, [&] { (void)g.submatrix(1, 5, 1, 2); }),
              " ERROR: the bounds of the submatrix are not valid\n");
    EXPECT_EQ(stop_message(log, [&] { (void)g.submatrix_index(std::vector<std::int32_t>{5}); }),
              " ERROR: the bounds of the submatrix are not valid\n");
}

TEST(Coosparse, SaveAndLoadRestoreTheTableSlotForSlot) {
    scratch_dir dir;
    coosparse c(5, 7, 8, true);
    c.add(1, 2, 1.5);
    c.add(2, 7, -2.5);
    c.set(3, 3, 0.0);
    c.add(5, 6, 4.0);
    const std::string file = (dir / "m.coo").string();
    c.save(file);

    coosparse l = coosparse::load(file);
    EXPECT_EQ(l.getdim(2), 7);
    EXPECT_TRUE(l.isupperstorage());
    EXPECT_TRUE(std::equal(l.ij_table().begin(), l.ij_table().end(), c.ij_table().begin()));
    EXPECT_TRUE(std::equal(l.values().begin(), l.values().end(), c.values().begin()));
    // The loaded table goes on taking elements.
    l.add(1, 2, 1.0);
    l.add(4, 4, 1.0);
    EXPECT_EQ(l.get(1, 2), 2.5);
    EXPECT_EQ(l.totalnumberofelements(), 5);
}

TEST(Coosparse, LoadRefusesOtherFiles) {
    scratch_dir dir;
    const std::string refusal = " ERROR: the proposed file is not a COO file\n";
    crssparse crs = convertfromcootocrs(coosparse(3));
    crs.save((dir / "m.crs").string());
    EXPECT_EQ(stop_message_on_cout([&] { (void)coosparse::load((dir / "m.crs").string()); }),
              refusal);

    coosparse c(3);
    c.add(1, 1, 1.0);
    c.save((dir / "m.coo").string());
    const std::string bytes = read_text(dir / "m.coo");
    std::ofstream(dir / "short.coo", std::ios::binary) << bytes.substr(0, bytes.size() - 8);
    EXPECT_EQ(stop_message_on_cout([&] { (void)coosparse::load((dir / "short.coo").string()); }),
              refusal);
    std::ofstream(dir / "tiny.coo", std::ios::binary) << "\x0a";
    EXPECT_EQ(stop_message_on_cout([&] { (void)coosparse::load((dir / "tiny.coo").string()); }),
              refusal);
    EXPECT_NE(stop_message_on_cout([&] {
                  (void)coosparse::load((dir / "none.coo").string());
              }).find("cannot be opened"),
              std::string::npos);
}

TEST(Coosparse, PrintRoutinesWriteTheirFiles) {
    scratch_dir dir;
    std::ostringstream log;
    coosparse c(2, 3, 4, std::nullopt, &log);
    c.add(1, 3, 2.5);
    c.printtofile((dir / "p.txt").string());
    EXPECT_EQ(read_text(dir / "p.txt"), "1 3 2.5\n");
    std::vector<std::int32_t> names{10, 20, 30}, few{1};
    c.print_idx(names);
    EXPECT_EQ(log.str(), "10 30 2.5\n");
    EXPECT_EQ(stop_message(log, [&] { c.print_idx(few); }),
              " ERROR: the vector lidx is smaller than the smallest dimension of COO\n");
}

}  // namespace
}  // namespace krel
