// Random contributions: the inverse relationship matrix assembled by
// Henderson's rules against the relationship matrix of the tabular method,
// the elements of the edge cases, traits and columns, and the refusals of
// the dispatcher and of bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "inputs/pedigree.h"
#include "inputs/pedigree_support.h"
#include "mme/model_description.h"
#include "mme/random_contributions.h"
#include "sparse/sparse_matrix.h"
#include "test_support.h"
#include "util/error_stop.h"

namespace krel {
namespace {

using testing::contains;
using testing::log_capture;

using record = testing::pedigree_record;
using testing::make_pedigree;

// The relationship matrix of all levels, a group being a founder.
dmatrix tabular_a(const pedigree_type& p) { return testing::tabular_relationships(p); }

// max |B a - s I| over the rows first + 1 to first + n of c, B the block of
// those rows and columns.
double distance_from_identity(const gen_sparse& c, std::int32_t first, const dmatrix& a, double s = 1.0) {
    const auto n = a.rows();
    double worst = 0.0;
    for (dmatrix::index_type i = 1; i <= n; ++i)
        for (dmatrix::index_type j = 1; j <= n; ++j) {
            double v = 0.0;
            for (dmatrix::index_type k = 1; k <= n; ++k)
                v += c.get(first + static_cast<std::int32_t>(i), first + static_cast<std::int32_t>(k)) * a(k, j);
            worst = std::max(worst, std::abs(v - (i == j ? s : 0.0)));
        }
    return worst;
}

// A mean and an animal effect of n levels with inverse variance ginv, as the
// exact inverse of the left-hand side builds it.
param_type mean_and_animal(std::int32_t n, double ginv) {
    param_type p;
    p.ntrait = 1;
    p.neffect = 2;
    allocpar(p);
    p.modelmat.assign(1);
    p.nlevel[1] = 1;
    p.nlevel[2] = n;
    p.typeeff[2] = 3;
    p.effectopt[2] = 1;
    check_and_finalize(p);
    p.ginv[2](1, 1) = ginv;
    return p;
}

coosparse assemble(const param_type& param, const pedigree_type& ped) {
    coosparse c(param.neq, std::nullopt, param.neq, true);
    c.setsymmetric(true);
    std::vector<pedigree_type> peds(static_cast<std::size_t>(param.neffect) + 1);
    peds[2] = ped;
    addrandompart(param, {}, peds, nullptr, c);
    return c;
}

// Full-sib and sire-daughter matings, selfing, one and two unknown parents,
// and parents with higher numbers than their offspring.
pedigree_type inbred_pedigree() {
    pedigree_type p = make_pedigree(14, 0,
                                    {{3, 1, 2}, {4, 1, 2}, {5, 3, 4}, {6, 1, 5}, {7, 6, 0}, {8, 0, 5}, {9, 7, 8},
                                     {10, 12, 9}, {11, 6, 6}, {13, 10, 9}, {14, 13, 13}});
    p.computeinbreeding_ped();
    return p;
}

TEST(addrandompart, AinverseTimesTabularAIsTheIdentityOnSmallPedigrees) {
    log_capture log;
    const pedigree_type ped = inbred_pedigree();
    const dmatrix a = tabular_a(ped);
    for (std::int32_t i = 1; i <= 14; ++i) ASSERT_NEAR(ped.inb[i], a(i, i) - 1.0, 1e-14) << i;
    ASSERT_GT(ped.inb[14], 0.5);

    const double ginv = 1.0 / 0.35;
    const coosparse c = assemble(mean_and_animal(14, ginv), ped);
    EXPECT_LT(distance_from_identity(c, 1, a, ginv), 1e-12);
    for (std::int32_t j = 1; j <= 15; ++j) EXPECT_EQ(c.get(1, j), 0.0);  // nothing on the mean

    // The pedigree's own assembly: g = 1 and the level as its equation.
    coosparse ainv;
    ped.computeasparse_ped(ainv);
    EXPECT_LT(distance_from_identity(ainv, 0, a), 1e-12);

    // An animal effect nested in a class takes its animals from nlevel2.
    param_type nested;
    nested.ntrait = 1;
    nested.neffect = 2;
    allocpar(nested);
    nested.modelmat.assign(1);
    nested.nlevel = {0, 1, 3};
    nested.nlevel2[2] = 14;
    nested.nestedcov(1, 2) = 5;
    nested.covkind[2] = 1;
    nested.typeeff[2] = 3;
    check_and_finalize(nested);
    nested.ginv[2](1, 1) = 1.0;
    EXPECT_LT(distance_from_identity(assemble(nested, ped), 1, a), 1e-12);

    // A group parent is a known level like any other: with the groups among
    // the levels and the inbreeding of the pedigree in which they are
    // founders, the matrix is that pedigree's inverse. Groups 7 and 8 here
    // relate animals 1 and 2.
    pedigree_type groups = make_pedigree(8, 2, {{1, 7, 8}, {2, 7, 0}, {3, 1, 2}, {4, 8, 3}, {5, 3, 4}, {6, 1, 5}});
    const dmatrix ag = tabular_a(groups);
    groups.inb.assign(9, 0.0);
    for (std::int32_t i = 1; i <= 8; ++i) groups.inb[i] = ag(i, i) - 1.0;
    ASSERT_GT(groups.inb[3], 0.0);
    EXPECT_LT(distance_from_identity(assemble(mean_and_animal(8, 1.0), groups), 1, ag), 1e-12);
}

TEST(addrandompart, ParentsWithInbreedingOfOneGiveInfinity) {
    // Both parents with F = 1: the division by zero is not checked.
    log_capture log;
    pedigree_type ped = make_pedigree(3, 0, {{3, 1, 2}});
    ped.inb.assign(4, 0.0);
    ped.inb[1] = ped.inb[2] = 1.0;
    const coosparse c = assemble(mean_and_animal(3, 2.5), ped);
    EXPECT_TRUE(std::isinf(c.get(4, 4)) && c.get(4, 4) > 0);
    EXPECT_TRUE(std::isinf(c.get(2, 4)) && c.get(2, 4) < 0);
}

TEST(addrandompart, TraitsAndColumnsGiveTheKroneckerProductWithTheInverseCovariance) {
    log_capture log;
    pedigree_type ped = make_pedigree(6, 0, {{3, 1, 2}, {4, 1, 3}, {5, 4, 2}, {6, 5, 0}});
    ped.computeinbreeding_ped();
    const dmatrix a = tabular_a(ped);
    // Two traits and two columns: four equations per animal, after the two
    // of the mean.
    param_type p;
    p.ntrait = 2;
    p.neffect = 2;
    allocpar(p);
    p.modelmat.assign(1);
    p.nlevel = {0, 1, 6};
    p.typeeff[2] = 3;
    p.ncov[2] = 2;
    check_and_finalize(p);
    ASSERT_EQ(p.neq, 2 + 24);
    dmatrix& gi = p.ginv[2];
    for (std::int32_t r = 1; r <= 4; ++r)
        for (std::int32_t q = 1; q <= 4; ++q) gi(r, q) = (r == q ? 3.0 : 0.0) + 0.25 * (r + q);
    auto eq = [](std::int32_t animal, std::int32_t r) { return 2 + 4 * (animal - 1) + r; };

    // (A-inverse kron G-inverse)(A kron I) = I kron G-inverse.
    const coosparse c = assemble(p, ped);
    double worst = 0.0;
    for (std::int32_t i = 1; i <= 6; ++i)
        for (std::int32_t j = 1; j <= 6; ++j)
            for (std::int32_t r = 1; r <= 4; ++r)
                for (std::int32_t q = 1; q <= 4; ++q) {
                    double v = 0.0;
                    for (std::int32_t k = 1; k <= 6; ++k) v += c.get(eq(i, r), eq(k, q)) * a(k, j);
                    worst = std::max(worst, std::abs(v - (i == j ? gi(r, q) : 0.0)));
                }
    EXPECT_LT(worst, 1e-12);

    // The second trait out of the effect's model: its equations (2 and 4 of
    // each animal) stay empty, the first trait's are as before.
    p.modelmat(2, 2) = 0;
    const coosparse d = assemble(p, ped);
    for (std::int32_t i = 1; i <= 6; ++i)
        for (std::int32_t j = 1; j <= 6; ++j)
            for (std::int32_t r = 1; r <= 4; ++r)
                for (std::int32_t q = 1; q <= 4; ++q) {
                    const bool second = r % 2 == 0 || q % 2 == 0;
                    EXPECT_EQ(d.get(eq(i, r), eq(j, q)), second ? 0.0 : c.get(eq(i, r), eq(j, q)));
                }
}

TEST(addrandompart, ElementsAlreadyInTheMatrixStay) {
    // A matrix with other elements and a small table: the assembly makes
    // room for the pedigree, and what was there stays, with the symmetry and
    // the permutation.
    log_capture log;
    const pedigree_type ped = inbred_pedigree();
    const param_type param = mean_and_animal(14, 1.0);
    coosparse c(param.neq, std::nullopt, 2, true);
    c.setsymmetric(true);
    std::vector<std::int32_t> perm(15);
    for (std::int32_t i = 0; i < 15; ++i) perm[i] = 15 - i;
    c.setpermutation32(perm);
    for (std::int32_t i = 1; i <= 15; ++i) c.add(1, i, 0.5 * i);
    std::vector<pedigree_type> peds(3);
    peds[2] = ped;
    addrandompart(param, {}, peds, nullptr, c);

    const coosparse plain = assemble(param, ped);
    for (std::int32_t i = 1; i <= 15; ++i)
        for (std::int32_t j = 1; j <= 15; ++j)
            EXPECT_EQ(c.get(i, j), plain.get(i, j) + (i == 1 || j == 1 ? 0.5 * std::max(i, j) : 0.0));
    std::vector<std::int32_t> back;
    c.getpermutation32(back);
    EXPECT_EQ(back, perm);
}

TEST(addrandompart, KindsWithoutARoutineStopTheRun) {
    struct refusal {
        std::int32_t kind, effecthuge;
        const std::vector<crssparse>* external;
        std::string message;
    };
    const std::vector<crssparse> none, one(1);
    const refusal refusals[] = {
        {7, 0, nullptr, "This type of effect 7 for effect 2 is not implemented"},
        {-1, 0, nullptr, "This type of effect -1 for effect 2 is not implemented"},
        {10, 0, &one, "This type of effect 10 for effect 2 is not implemented"},
        {20, 1, nullptr, "ghuge is not allocated"},
        {22, 1, &none, "size(ghuge) is equal to 0"},
        {20, 1, &one, "This type of effect 20 for effect 2 is not implemented"},
        {22, 0, &one, "This type of effect 22 for effect 2 is not implemented"},
    };
    pedigree_type ped = make_pedigree(4, 0, {{3, 1, 2}});
    ped.computeinbreeding_ped();
    std::vector<pedigree_type> peds(3);
    peds[2] = ped;
    for (const auto& r : refusals) {
        log_capture log;
        param_type p = mean_and_animal(4, 1.0);
        p.typeeff[2] = r.kind;
        p.effecthuge[2] = r.effecthuge;
        coosparse c(p.neq, std::nullopt, p.neq, true);
        EXPECT_THROW(addrandompart(p, {}, peds, r.external, c), error_stop) << r.message;
        EXPECT_TRUE(contains(log.text(), "modmme % addrandompart (")) << log.text();
        EXPECT_TRUE(contains(log.text(), r.message)) << log.text();
        EXPECT_FALSE(contains(log.text(), "All contributions for effects are added"));
    }

    // Kind 0 adds nothing and says nothing but the last line.
    log_capture log;
    param_type p = mean_and_animal(4, 1.0);
    p.typeeff[2] = 0;
    coosparse c(p.neq, std::nullopt, p.neq, true);
    addrandompart(p, {}, peds, nullptr, c);
    EXPECT_EQ(c.totalnumberofelements(), 0);
    EXPECT_FALSE(contains(log.text(), "Addition of"));
    EXPECT_TRUE(contains(log.text(), "All contributions for effects are added"));
}

TEST(addrandompart, BadInputIsLoggedAndStopsTheRun) {
    pedigree_type ped = make_pedigree(4, 0, {{3, 1, 2}, {4, 3, 0}});
    ped.computeinbreeding_ped();
    using spoiler = std::function<void(param_type&, pedigree_type&, std::vector<pedigree_type>&)>;
    struct bad_case {
        std::string message, where;
        spoiler spoil;
    };
    const std::string ani = "modmme % addrandompart_eff_ani_inb (";
    const bad_case cases[] = {
        {"Covariables are not possible with animal effect", ani,
         [](param_type& p, pedigree_type&, auto&) { p.covkind[2] = 1; }},
        {"Inbreeding coefficients are not available for the pedigree", ani,
         [](param_type&, pedigree_type& q, auto&) { q.inb.clear(); }},
        {"Number of animals of the effect (4) above the number of levels of the pedigree (3)", ani,
         [](param_type&, pedigree_type& q, auto&) {
             q = make_pedigree(3, 0, {{3, 1, 2}});
             q.inb.assign(4, 0.0);
         }},
        {"Parent of level 4 outside the levels 1 to 4", ani,
         [](param_type&, pedigree_type& q, auto&) { q.ped(1, 4) = 9; }},
        {"Number of animals of effect 2 (4) above its number of levels (3)", ani,
         [](param_type& p, pedigree_type&, auto&) { p.sumlevel[3] = 4; }},
        {"No pedigree for effect 2 (internal error)", "modmme % addrandompart (",
         [](param_type&, pedigree_type&, auto& peds) { peds.resize(2); }},
        {"Effect 2 is not described by the model (internal error)", ani,
         [](param_type& p, pedigree_type&, auto&) { p.sumlevel.clear(); }},
        {"The inverse (co)variance of effect 2 is not of the order of its traits times its columns (internal error)",
         ani, [](param_type& p, pedigree_type&, auto&) { p.ncov[2] = 2; }},
    };
    for (const auto& b : cases) {
        log_capture log;
        param_type p = mean_and_animal(4, 1.0);
        pedigree_type q = ped;
        std::vector<pedigree_type> peds(3);
        b.spoil(p, q, peds);
        if (peds.size() > 2) peds[2] = q;
        coosparse c(p.neq, std::nullopt, p.neq, true);
        EXPECT_THROW(addrandompart(p, {}, peds, nullptr, c), error_stop) << b.message;
        EXPECT_TRUE(contains(log.text(), b.message)) << log.text();
        EXPECT_TRUE(contains(log.text(), b.where)) << log.text();
    }

    // The pedigree's own routines refuse the same, under their own names.
    log_capture log;
    pedigree_type q = ped;
    q.inb.clear();
    coosparse c;
    EXPECT_THROW(q.computeasparse_ped(c), error_stop);
    EXPECT_TRUE(contains(log.text(), "modpedigree % computeasparse_ped ("));
    coosparse d(4, std::nullopt, 4, true);
    EXPECT_THROW(ped.addrandompart_eff_ani_inb(d, 5), error_stop);
    EXPECT_TRUE(contains(log.text(), "modpedigree % addrandompart_eff_ani_inb ("));
}

}  // namespace
}  // namespace krel
