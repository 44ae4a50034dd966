#pragma once
// Random-effect contributions to the coefficient matrix of a mixed model,
// chosen by the kind of each effect, and the inverse relationship matrix of
// an animal effect by Henderson's rules with the inbreeding of the parents.
//
// Arrays of objects that go with effects are indexed by the effect's number:
// element 0 is unused.
#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "inputs/pedigree.h"
#include "mme/model_description.h"
#include "sparse/sparse_matrix.h"
#include "util/dense_matrix.h"

namespace krel {

// Adds the random contribution of every effect of the model, effect after
// effect, by its kind typeeff:
//   0        nothing (a fixed effect);
//   3        the animal effect with inbreeding: addrandompart_eff_ani_inb;
//   20, 22   huge effects: with effecthuge 1 they need the external matrix,
//            so external must be given and not empty;
//   others   stop the run. That includes the kinds 1, 5, 9, 10, 11, 20 and
//            22, which name contributions (diagonal, unknown parent groups,
//            external sparse or dense, huge diagonal) that have no routine
//            in this program.
// dense would serve kind 11 and external kinds 10, 20 and 22; null external
// stands for one that was never allocated.
void addrandompart(const param_type& param, std::span<const dmatrix> dense, std::span<const pedigree_type> ped,
                   const std::vector<crssparse>* external, coosparse& lhs);

// The inverse relationship matrix of the animals of effect ieff, times the
// effect's inverse (co)variance, at the effect's equations. The number of
// animals is nlevel (covkind 0) or nlevel2 (covkind 1). ped must hold them,
// their parents and the inbreeding of every level.
void addrandompart_eff_ani_inb(const param_type& param, std::int32_t ieff, const pedigree_type& ped,
                               coosparse& lhs);

// Adds d t t' times the inverse (co)variance of effect ieff for the triple of
// levels (animal, sire, dam); a member 0 or less is left out. Rows are taken
// in the order of the triple, and so are the columns of each row.
void addpedcontribution(const param_type& param, std::int32_t ieff, const std::array<std::int32_t, 3>& triple,
                        const std::array<double, 3>& t, double d, coosparse& lhs);

}  // namespace krel
