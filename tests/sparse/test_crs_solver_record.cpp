// The solver's record of a compressed-row matrix: made by the first solve,
// carried along when the matrix is moved, dropped by destroy.
#include <gtest/gtest.h>

#include <sstream>
#include <type_traits>
#include <utility>

#include "sparse/direct_solver.h"
#include "sparse/sparse_matrix.h"
#include "sparse_test_support.h"
#include "test_support.h"

namespace krel {
namespace {

using namespace krel::testing;

template <class CRS>
class CrsSolverRecord : public ::testing::Test {};
using CrsWidths = ::testing::Types<crssparse, crssparse64>;
TYPED_TEST_SUITE(CrsSolverRecord, CrsWidths);

TYPED_TEST(CrsSolverRecord, TravelsWithAMovedMatrixAndGoesWithDestroy) {
    using CRS = TypeParam;
    const std::int32_t n = 20;
    dmatrix a(n, n);
    for (std::int32_t i = 1; i <= n; ++i) {
        a(i, i) = 4.0;
        if (i < n) a(i, i + 1) = a(i + 1, i) = -1.0;
    }
    const coosparse coo = coo_of(upper_of(a), true, true);
    CRS crs;
    if constexpr (std::is_same_v<CRS, crssparse>)
        crs = convertfromcootocrs(coo);
    else
        crs = convertfromcootocrs64(coo);
    std::ostringstream unit;
    crs.setoutputunit(&unit);
    EXPECT_FALSE(crs.getpardiso().hasmemory());

    const dmatrix b = random_block(n, 1, 3);
    dmatrix x(n, 1), x2(n, 1);
    crs.solve(x, b);
    EXPECT_TRUE(contains(unit.str(), " Start ordering and factorization\n"));
    EXPECT_TRUE(crs.getpardiso().hasfactor());

    // Moved, by construction and by assignment, the factor goes along: the
    // next solve neither factors again nor says a word.
    unit.str({});
    CRS moved = std::move(crs);
    moved.solve(x2, b);
    CRS assigned;
    assigned = std::move(moved);
    assigned.solve(x2, b);
    EXPECT_EQ(unit.str(), "");
    EXPECT_EQ(max_abs_diff(x, x2), 0.0);
    EXPECT_TRUE(assigned.getpardiso().hasfactor());

    assigned.destroy();
    EXPECT_FALSE(assigned.getpardiso().hasmemory());
}

}  // namespace
}  // namespace krel
