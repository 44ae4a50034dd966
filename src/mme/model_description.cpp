#include "mme/model_description.h"

#include <algorithm>
#include <limits>
#include <string>

#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"

namespace krel {

namespace {

constexpr const char* module_name = "modparameters";

[[noreturn]] void param_error(const std::string& message, std::string_view routine) {
    global_logger().log_error(message, module_name, procedure_at(routine));
    throw error_stop();
}

std::size_t ix(std::int32_t i) { return static_cast<std::size_t>(i); }

bool is_nested(const param_type& param, std::int32_t i) {
    for (std::int32_t t = 1; t <= param.ntrait; ++t)
        if (param.nestedcov(t, i) != 0) return true;
    return false;
}

bool is_huge(std::int32_t kind) { return kind == 20 || kind == 22; }

}  // namespace

void allocpar(param_type& param) {
    if (param.ntrait < 0 || param.neffect < 0)
        param_error("Number of traits or of effects < 0 (internal error)", "allocpar");
    const std::size_t ne = ix(param.neffect) + 1;
    param.neq = 0;
    param.nlevel.assign(ne, 0);
    param.modelmat = imatrix(param.ntrait, param.neffect, 0);
    param.covkind.assign(ne, 0);
    param.nlevel2.assign(ne, 0);
    param.typeeff.assign(ne, 0);
    param.effectopt.assign(ne, 0);
    param.sumlevel.assign(ne + 1, 0);
    param.ncov.assign(ne, 1);
    param.ginv.assign(ne, dmatrix(param.ntrait, param.ntrait));
    param.ginv[0] = dmatrix();
    param.alpha = 1.0;
    param.beta = 0.0;
    param.nestedcov = imatrix(param.ntrait, param.neffect, 0);
    param.nestedcolumns.clear();
    param.effecthuge.assign(ne, 0);
}

void check_and_finalize(param_type& param) {
    auto& log = global_logger();
    for (std::int32_t i = 1; i <= param.neffect; ++i)
        if (param.nlevel[ix(i)] <= 0)
            param_error("Instruction file: at least one effect has less than 1 level!", "check_and_finalize");

    if (param.alpha != 1.0 - param.beta)
        log.log_warning("alpha (" + realtochar(param.alpha, "(g0.4)") + ") is not equal to 1-beta (1-" +
                        realtochar(param.beta, "(g0.4)") + ")");

    setnestedcovtoall(param);
    checknestedcov(param);
    setsumlevel(param);
    setnestedcov(param);

    for (std::int32_t i = 1; i <= param.neffect; ++i) {
        const std::int64_t order = static_cast<std::int64_t>(param.ntrait) * param.ncov[ix(i)];
        dmatrix& g = param.ginv[ix(i)];
        if (g.rows() != order || g.cols() != order) g.resize(order, order);
    }

    param.neq = param.ntrait * param.sumlevel[ix(param.neffect) + 1];
    log.log_message("Number of equations: " + inttochar(param.neq));
}

void setnestedcovtoall(param_type& param) {
    for (std::int32_t i = 1; i <= param.neffect; ++i) {
        std::int32_t first = 0;
        for (std::int32_t t = 1; t <= param.ntrait; ++t) {
            const std::int32_t c = param.nestedcov(t, i);
            if (c == 0) continue;
            if (first == 0)
                first = c;
            else if (c != first)
                global_logger().log_warning("Effect " + inttochar(i) +
                                            ": different columns for nested covariables are provided: " +
                                            inttochar(first) + " and " + inttochar(c) +
                                            " is now a nested covariable for all traits!");
        }
        if (first != 0)
            for (std::int32_t t = 1; t <= param.ntrait; ++t) param.nestedcov(t, i) = first;
    }
}

void checknestedcov(const param_type& param) {
    for (std::int32_t i = 1; i <= param.neffect; ++i) {
        const bool nested = is_nested(param, i);
        if (nested && param.nlevel2[ix(i)] <= 0)
            param_error("Effect " + inttochar(i) +
                            ": columns for nested covariables are provided but the number of levels is <= 0!",
                        "checknestedcov");
        if (!nested && param.nlevel2[ix(i)] > 0)
            param_error("Effect " + inttochar(i) +
                            ": columns for nested covariables are all 0 but the number of levels is > 0!",
                        "checknestedcov");
    }
}

void setsumlevel(param_type& param) {
    param.sumlevel.assign(ix(param.neffect) + 2, 0);
    for (std::int32_t i = 1; i <= param.neffect; ++i) {
        const bool nested = is_nested(param, i);
        if (param.ncov[ix(i)] < 1)
            param_error("Effect " + inttochar(i) + ": the number of covariable columns is < 1!", "setsumlevel");
        if (is_huge(param.typeeff[ix(i)])) {
            if (nested) param_error("Nested huge covariables are not implemented!", "setsumlevel");
            if (param.ncov[ix(i)] > 1)
                param_error("STOP: not fully implemented yet for ghuge+extra covariables", "setsumlevel");
        }
        const std::int64_t levels = nested ? param.nlevel2[ix(i)] : param.nlevel[ix(i)];
        const std::int64_t total = param.sumlevel[ix(i)] + levels * param.ncov[ix(i)];
        // Equations are 32-bit numbers, for every trait.
        if (total * std::max(param.ntrait, 1) > std::numeric_limits<std::int32_t>::max())
            param_error("Number of equations above " + inttochar(std::numeric_limits<std::int32_t>::max()),
                        "setsumlevel");
        param.sumlevel[ix(i) + 1] = static_cast<std::int32_t>(total);
    }
}

void setnestedcov(param_type& param) {
    std::vector<std::int32_t> columns;
    for (std::int32_t i = 1; i <= param.neffect; ++i)
        for (std::int32_t t = 1; t <= param.ntrait; ++t)
            if (param.nestedcov(t, i) != 0) columns.push_back(param.nestedcov(t, i));
    std::sort(columns.begin(), columns.end());
    columns.erase(std::unique(columns.begin(), columns.end()), columns.end());
    param.nestedcolumns = std::move(columns);
    if (!param.nestedcolumns.empty())
        global_logger().log_message("Number of different columns for nested covariables: " +
                                    inttochar(static_cast<std::int32_t>(param.nestedcolumns.size())));
}

}  // namespace krel
