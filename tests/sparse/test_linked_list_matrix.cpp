#include <gtest/gtest.h>

#include "sparse/sparse_matrix.h"
#include "sparse_test_support.h"

namespace krel {
namespace {

using namespace krel::testing;

TEST(Llsparse, AddinorderKeepsRowsAscendingAndAccumulates) {
    std::ostringstream log;
    llsparse ll(3, 6, std::nullopt, &log);
    for (std::int32_t c : {5, 2, 6, 1, 3}) ll.addinorder(2, c, c * 1.0);
    EXPECT_EQ(ll.totalnumberofelements(), 5);
    ll.addinorder(2, 3, 0.5);  // a column already there: the value, not the length
    EXPECT_EQ(ll.totalnumberofelements(), 5);
    EXPECT_EQ(ll.get(2, 3), 3.5);
    ll.print();
    EXPECT_EQ(log.str(), "2 1 1\n2 2 2\n2 3 3.5\n2 5 5\n2 6 6\n");

    ll.addinorder(1, 1, 1e-17);  // the tests of the other classes apply
    ll.addinorder(4, 1, 1.0);
    ll.addtohead(1, 7, 1.0);
    EXPECT_EQ(ll.totalnumberofelements(), 5);
    ll.addtohead(3, 4, 4.0);
    ll.addtohead(3, 2, 2.0);
    ll.addtotail(3, 6, 6.0);
    ll.addtotail(1, 1, 1.0);
    EXPECT_EQ(ll.totalnumberofelements(), 9);
    EXPECT_EQ(ll.get(3, 6), 6.0);

    llsparse up(4, std::nullopt, true);
    up.addinorder(3, 1, 1.0);
    up.addtohead(3, 1, 1.0);
    up.addtotail(3, 1, 1.0);
    EXPECT_EQ(up.totalnumberofelements(), 0);
    up.addinorder(1, 3, 2.0);
    EXPECT_EQ(up.get(3, 1), 0.0);
    up.setsymmetric();
    EXPECT_EQ(up.get(3, 1), 2.0);
}

TEST(Llsparse, ConversionsAgreeWithTheOtherClasses) {
    const dmatrix up = random_dense(10, 10, 0.35, 6, true);
    const coosparse coo = coo_of(up, true, true);
    const llsparse ll = convertfromcootoll(coo);
    EXPECT_TRUE(ll.issymmetric() && ll.isupperstorage());
    EXPECT_EQ(ll.totalnumberofelements(), coo.totalnumberofelements());
    EXPECT_EQ(max_abs_diff(dense_of(ll), symmetric_of_upper(up)), 0.0);

    const crssparse crs = convertfromlltocrs(ll);
    const crssparse direct = convertfromcootocrs(coo);
    EXPECT_EQ(crs.totalnumberofelements(), direct.totalnumberofelements());
    for (std::int32_t i = 1; i <= 10; ++i) EXPECT_EQ(crs.colval()[crs.rowptr()[i - 1] - 1], i);
    EXPECT_EQ(max_abs_diff(dense_of(crs), symmetric_of_upper(up)), 0.0);

    const llsparse fromcrs = convertfromcrstoll(crs);  // reserved zeros are not added
    EXPECT_EQ(fromcrs.totalnumberofelements(), coo.totalnumberofelements());
    const coosparse back = convertfromlltocoo(fromcrs);
    EXPECT_TRUE(back.issymmetric());
    EXPECT_EQ(max_abs_diff(dense_of(back), symmetric_of_upper(up)), 0.0);

    const dmatrix rect = random_dense(4, 9, 0.5, 8);
    const crssparse r = convertfromlltocrs(convertfromcootoll(coo_of(rect, false, false)));
    for (std::int32_t i = 1; i <= 4; ++i) EXPECT_EQ(r.colval()[r.rowptr()[i - 1] - 1], 9);
    EXPECT_EQ(max_abs_diff(dense_of(r), rect), 0.0);
}

TEST(Llsparse, ProductsStop) {
    std::ostringstream log;
    llsparse ll(3, std::nullopt, std::nullopt, &log);
    std::vector<double> x(3), y(3);
    EXPECT_EQ(stop_message(log, [&] { ll.multgenv(1.0, 'N', x, 0.0, y); }),
              " ERROR: Multiplication mult not implemented for llsparse\n");
}

}  // namespace
}  // namespace krel
