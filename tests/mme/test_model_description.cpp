// The model description: the numbering of the equations and the messages of
// check_and_finalize.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>

#include "mme/model_description.h"
#include "test_support.h"
#include "util/error_stop.h"

namespace krel {
namespace {

using testing::contains;
using testing::log_capture;

// ntrait traits, effects of the given levels, every effect in every trait.
param_type model(std::int32_t ntrait, const std::vector<std::int32_t>& levels) {
    param_type p;
    p.ntrait = ntrait;
    p.neffect = static_cast<std::int32_t>(levels.size());
    allocpar(p);
    p.modelmat.assign(1);
    for (std::size_t i = 0; i < levels.size(); ++i) p.nlevel[i + 1] = levels[i];
    return p;
}

TEST(param_type, MeanAndAnimalGiveTheAnimalEquationOnePlusItsLevel) {
    log_capture log;
    param_type p = model(1, {1, 250});
    p.typeeff[2] = 3;
    check_and_finalize(p);
    EXPECT_EQ(p.sumlevel, (std::vector<std::int32_t>{0, 0, 1, 251}));
    EXPECT_EQ(p.neq, 251);
    EXPECT_EQ(equation_of(p, 1, 1), 1);
    for (std::int32_t l : {1, 2, 250}) EXPECT_EQ(equation_of(p, 2, l), 1 + l);
    // Default alpha and beta and no nested covariables: nothing else said.
    const std::string text = log.text();
    EXPECT_TRUE(contains(text, "Number of equations: 251"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;

    // alpha other than 1 - beta only warns.
    log.clear();
    p.alpha = 0.5;
    p.beta = 0.25;
    check_and_finalize(p);
    EXPECT_TRUE(contains(log.text(), "alpha (0.5000) is not equal to 1-beta (1-0.2500)")) << log.text();
    EXPECT_EQ(p.neq, 251);
}

TEST(param_type, TraitsAndColumnsNumberEveryEquationOnceWithinItsEffect) {
    log_capture log;
    param_type p = model(2, {3, 4, 2});
    p.ncov[2] = 3;
    check_and_finalize(p);
    EXPECT_EQ(p.neq, 2 * (3 + 4 * 3 + 2));
    std::set<std::int32_t> seen;
    for (std::int32_t i = 1; i <= 3; ++i)
        for (std::int32_t l = 1; l <= p.nlevel[i]; ++l)
            for (std::int32_t ci = 0; ci < p.ncov[i]; ++ci)
                for (std::int32_t ti = 0; ti < p.ntrait; ++ti) {
                    const std::int32_t e = equation_of(p, i, l, ti, ci);
                    EXPECT_GT(e, p.ntrait * p.sumlevel[i]);
                    EXPECT_LE(e, p.ntrait * p.sumlevel[i + 1]);
                    EXPECT_TRUE(seen.insert(e).second) << "effect " << i << " level " << l;
                }
    EXPECT_EQ(static_cast<std::int32_t>(seen.size()), p.neq);
    // The equations of a level are consecutive, trait fastest, and the
    // (co)variance blocks follow.
    EXPECT_EQ(equation_of(p, 2, 2, 1, 0), equation_of(p, 2, 2, 0, 0) + 1);
    EXPECT_EQ(equation_of(p, 2, 2, 0, 1), equation_of(p, 2, 2, 0, 0) + 2);
}

TEST(param_type, NestedCovariablesCountTheLevelsOfTheirClass) {
    // A column given for one trait holds for all; of two different ones the
    // first wins, with a warning.
    log_capture log;
    param_type p = model(3, {1, 7});
    p.nestedcov(2, 2) = 4;
    p.nestedcov(3, 2) = 6;
    p.nlevel2[2] = 10;
    p.ncov[2] = 2;
    check_and_finalize(p);
    EXPECT_TRUE(contains(log.text(), "Effect 2: different columns for nested covariables are provided: 4 and 6 "
                                     "is now a nested covariable for all traits!"));
    for (std::int32_t t = 1; t <= 3; ++t) EXPECT_EQ(p.nestedcov(t, 2), 4);
    EXPECT_EQ(p.nestedcolumns, std::vector<std::int32_t>{4});
    EXPECT_TRUE(contains(log.text(), "Number of different columns for nested covariables: 1"));
    EXPECT_EQ(p.neq, 3 * (1 + 10 * 2));
}

TEST(param_type, RefusalsStopTheRun) {
    struct refusal {
        std::string message, routine;
        std::function<void(param_type&)> spoil;
    };
    const refusal refusals[] = {
        {"Instruction file: at least one effect has less than 1 level!", "check_and_finalize",
         [](param_type& p) { p.nlevel[2] = 0; }},
        {"Effect 2: columns for nested covariables are provided but the number of levels is <= 0!", "checknestedcov",
         [](param_type& p) { p.nestedcov(1, 2) = 3; }},
        {"Effect 2: columns for nested covariables are all 0 but the number of levels is > 0!", "checknestedcov",
         [](param_type& p) { p.nlevel2[2] = 5; }},
        {"Nested huge covariables are not implemented!", "setsumlevel",
         [](param_type& p) {
             p.nestedcov(1, 2) = 3;
             p.nlevel2[2] = 5;
             p.typeeff[2] = 20;
         }},
        {"STOP: not fully implemented yet for ghuge+extra covariables", "setsumlevel",
         [](param_type& p) {
             p.typeeff[2] = 22;
             p.ncov[2] = 2;
         }},
        {"Effect 2: the number of covariable columns is < 1!", "setsumlevel", [](param_type& p) { p.ncov[2] = 0; }},
        {"Number of equations above 2147483647", "setsumlevel", [](param_type& p) { p.nlevel[2] = 1100000000; }},
    };
    for (const auto& r : refusals) {
        log_capture log;
        param_type p = model(2, {1, 7});
        r.spoil(p);
        EXPECT_THROW(check_and_finalize(p), error_stop) << r.message;
        EXPECT_TRUE(contains(log.text(), r.message)) << log.text();
        EXPECT_TRUE(contains(log.text(), "modparameters % " + r.routine + " (")) << log.text();
        EXPECT_FALSE(contains(log.text(), "Number of equations:"));
    }

    log_capture log;
    param_type p;
    p.ntrait = 1;
    p.neffect = -1;
    EXPECT_THROW(allocpar(p), error_stop);
    EXPECT_TRUE(contains(log.text(), "modparameters % allocpar ("));
}

}  // namespace
}  // namespace krel
