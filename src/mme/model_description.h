#pragma once
// The description of a mixed model: traits, effects, their levels and kinds,
// and the inverse (co)variance of each effect. The numbering of the equations
// follows from it: effect i starts after ntrait * sumlevel(i) equations, and
// within an effect the equations of one level are consecutive, trait index
// running fastest, then covariable column.
//
// Arrays are indexed from 1 as the rest of the model code: index 0 of every
// per-effect vector is unused. Messages of this unit carry the module name
// "modparameters", the unit of the model description.
#include <cstdint>
#include <vector>

#include "util/dense_matrix.h"

namespace krel {

// A 1-based column-major matrix of 32-bit integers.
class imatrix {
public:
    imatrix() = default;
    imatrix(std::int32_t rows, std::int32_t cols, std::int32_t value = 0)
        : rows_(rows), cols_(cols), v_(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols), value) {}
    std::int32_t rows() const { return rows_; }
    std::int32_t cols() const { return cols_; }
    std::int32_t& operator()(std::int32_t i, std::int32_t j) { return v_[index(i, j)]; }
    std::int32_t operator()(std::int32_t i, std::int32_t j) const { return v_[index(i, j)]; }
    void assign(std::int32_t value) { v_.assign(v_.size(), value); }

private:
    std::size_t index(std::int32_t i, std::int32_t j) const {
        return static_cast<std::size_t>(j - 1) * static_cast<std::size_t>(rows_) + static_cast<std::size_t>(i - 1);
    }
    std::int32_t rows_ = 0;
    std::int32_t cols_ = 0;
    std::vector<std::int32_t> v_;
};

struct param_type {
    std::int32_t ntrait = 0;
    std::int32_t neffect = 0;
    // Number of equations, set by check_and_finalize.
    std::int32_t neq = 0;
    // Levels of each effect.
    std::vector<std::int32_t> nlevel;
    // modelmat(t, i) is 1 when effect i is in the model of trait t.
    imatrix modelmat;
    // Where an animal effect takes its number of animals: 0 nlevel, 1 nlevel2.
    std::vector<std::int32_t> covkind;
    // The second count of levels: the levels of the class within which the
    // covariables of the effect are nested.
    std::vector<std::int32_t> nlevel2;
    // Kind of each effect, which selects its random contribution (see
    // mme/random_contributions.h).
    std::vector<std::int32_t> typeeff;
    std::vector<std::int32_t> effectopt;
    // Equations (per trait) before each effect; sumlevel[neffect + 1] is the
    // total.
    std::vector<std::int32_t> sumlevel;
    // Covariable columns of each effect: 1 for a class effect.
    std::vector<std::int32_t> ncov;
    // Inverse (co)variance of each effect, of order ntrait * ncov, rows and
    // columns in the order of the equations of one level.
    std::vector<dmatrix> ginv;
    double alpha = 1.0;
    double beta = 0.0;

    // nestedcov(t, i): the data column of the class within which the
    // covariables of effect i are nested for trait t, 0 when they are not.
    imatrix nestedcov;
    // The distinct nested columns of the model, ascending; set by
    // setnestedcov.
    std::vector<std::int32_t> nestedcolumns;
    // For the huge effects (kinds 20 and 22): 1 when their (co)variance
    // comes as an external sparse matrix.
    std::vector<std::int32_t> effecthuge;
};

// Allocates the arrays for ntrait and neffect, which must be set: everything
// 0 but ncov (1), the (co)variance blocks ntrait x ntrait of zeros, and alpha
// and beta at 1 and 0.
void allocpar(param_type& param);

// Finishes a filled model: checks the levels, compares alpha with 1 - beta,
// settles the nested covariables, numbers the equations and sets neq. The
// (co)variance blocks that do not have the order ntrait * ncov are resized
// to it, zeroed.
void check_and_finalize(param_type& param);

// The steps of check_and_finalize.
// A covariable nested for one trait becomes nested for all.
void setnestedcovtoall(param_type& param);
// The nested columns agree with nlevel2.
void checknestedcov(const param_type& param);
// Fills sumlevel: a nested effect counts nlevel2 levels, any other nlevel,
// each of ncov columns.
void setsumlevel(param_type& param);
// Lists the distinct nested columns.
void setnestedcov(param_type& param);

// Equation of trait index ti and column index ci (both from 0) of level l of
// effect ieff.
inline std::int32_t equation_of(const param_type& param, std::int32_t ieff, std::int32_t l,
                                std::int32_t ti = 0, std::int32_t ci = 0) {
    const std::int32_t nt = param.ntrait, c = param.ncov[static_cast<std::size_t>(ieff)];
    return (param.sumlevel[static_cast<std::size_t>(ieff)] * nt - nt * c) + l * c * nt + 1 + ti + ci * nt;
}

}  // namespace krel
