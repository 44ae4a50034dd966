#include "mme/random_contributions.h"

#include <string>

#include "mme/henderson_rules.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"

namespace krel {

namespace {

constexpr const char* module_name = "modmme";

[[noreturn]] void mme_error(const std::string& message, std::string_view routine) {
    global_logger().log_error(message, module_name, procedure_at(routine));
    throw error_stop();
}

std::size_t ix(std::int32_t i) { return static_cast<std::size_t>(i); }

// The equations of effect ieff: level l, trait index ti and column index ci
// (both from 0) sit at base + l * stride + ti + ci * nt.
struct effect_layout {
    std::int32_t ieff, nt, c, base, stride;
    const dmatrix* g;
    const imatrix* modelmat;

    effect_layout(const param_type& param, std::int32_t ieff_)
        : ieff(ieff_),
          nt(param.ntrait),
          c(param.ncov[ix(ieff_)]),
          base(param.sumlevel[ix(ieff_)] * nt - nt * c + 1),
          stride(c * nt),
          g(&param.ginv[ix(ieff_)]),
          modelmat(&param.modelmat) {}
};

// A model that is not whole at effect ieff would send the additions outside
// its arrays: refused.
void check_effect(const param_type& param, std::int32_t ieff, std::string_view routine) {
    const std::size_t ne = ix(param.neffect) + 1;
    if (ieff < 1 || ieff > param.neffect || param.nlevel.size() < ne || param.ncov.size() < ne ||
        param.covkind.size() < ne || param.nlevel2.size() < ne || param.ginv.size() < ne ||
        param.sumlevel.size() < ne + 1 || param.modelmat.rows() < param.ntrait ||
        param.modelmat.cols() < param.neffect)
        mme_error("Effect " + inttochar(ieff) + " is not described by the model (internal error)", routine);
    const std::int64_t order = static_cast<std::int64_t>(param.ntrait) * param.ncov[ix(ieff)];
    const dmatrix& g = param.ginv[ix(ieff)];
    if (param.ncov[ix(ieff)] < 1 || g.rows() != order || g.cols() != order)
        mme_error("The inverse (co)variance of effect " + inttochar(ieff) +
                      " is not of the order of its traits times its columns (internal error)",
                  routine);
}

// f(row, col, value) for every element of d t t' G for the triple, in the
// order of addpedcontribution.
template <class F>
void for_each_pedcontribution(const effect_layout& e, const std::array<std::int32_t, 3>& triple,
                              const std::array<double, 3>& t, double d, F&& f) {
    const dmatrix& g = *e.g;
    for (int a = 0; a < 3; ++a) {
        if (triple[ix(a)] < 1) continue;
        for (std::int32_t ci = 0; ci < e.c; ++ci)
            for (std::int32_t ti = 0; ti < e.nt; ++ti) {
                if ((*e.modelmat)(ti + 1, e.ieff) == 0) continue;
                const std::int32_t ra = ti + ci * e.nt;
                const std::int32_t row = e.base + triple[ix(a)] * e.stride + ra;
                for (int b = 0; b < 3; ++b) {
                    if (triple[ix(b)] < 1) continue;
                    for (std::int32_t cj = 0; cj < e.c; ++cj)
                        for (std::int32_t tj = 0; tj < e.nt; ++tj) {
                            if ((*e.modelmat)(tj + 1, e.ieff) == 0) continue;
                            const std::int32_t rb = tj + cj * e.nt;
                            f(row, e.base + triple[ix(b)] * e.stride + rb,
                              g(ra + 1, rb + 1) * d * t[ix(a)] * t[ix(b)]);
                        }
                }
            }
    }
}

}  // namespace

void addrandompart(const param_type& param, std::span<const dmatrix> /*dense*/, std::span<const pedigree_type> ped,
                   const std::vector<crssparse>* external, coosparse& lhs) {
    auto& log = global_logger();
    auto not_implemented = [&](std::int32_t kind, std::int32_t i) {
        mme_error("This type of effect " + inttochar(kind) + " for effect " + inttochar(i) + " is not implemented",
                  "addrandompart");
    };
    if (param.typeeff.size() < ix(param.neffect) + 1 || param.effecthuge.size() < ix(param.neffect) + 1)
        mme_error("The kinds of the effects are not allocated (internal error)", "addrandompart");
    for (std::int32_t i = 1; i <= param.neffect; ++i) {
        const std::int32_t kind = param.typeeff[ix(i)];
        switch (kind) {
            case 0:
                break;
            case 3:
                log.log_message("Addition of the random contributions for the animal (with inbreeding) effect " +
                                inttochar(i));
                if (ped.size() <= ix(i))
                    mme_error("No pedigree for effect " + inttochar(i) + " (internal error)", "addrandompart");
                addrandompart_eff_ani_inb(param, i, ped[ix(i)], lhs);
                break;
            case 20:
            case 22:
                if (param.effecthuge[ix(i)] == 1) {
                    if (external == nullptr) mme_error("ghuge is not allocated", "addrandompart");
                    if (external->empty()) mme_error("size(ghuge) is equal to 0", "addrandompart");
                }
                // The huge diagonal, A22 and off-diagonal contributions have
                // no routine here.
                not_implemented(kind, i);
                break;
            default:
                // Kinds 1, 5, 9, 10 and 11 name contributions without a
                // routine here; kind 7 and the rest name none at all.
                not_implemented(kind, i);
        }
    }
    log.log_message("All contributions for effects are added");
}

void addrandompart_eff_ani_inb(const param_type& param, std::int32_t ieff, const pedigree_type& ped,
                               coosparse& lhs) {
    constexpr const char* routine = "addrandompart_eff_ani_inb";
    check_effect(param, ieff, routine);
    std::int32_t n = 0;
    switch (param.covkind[ix(ieff)]) {
        case 0:
            n = param.nlevel[ix(ieff)];
            break;
        case 1:
            n = param.nlevel2[ix(ieff)];
            if (n > 0) break;
            [[fallthrough]];
        default:
            mme_error("Covariables are not possible with animal effect", routine);
    }
    // The animals must stay within the equations of the effect.
    const std::int32_t levels = param.sumlevel[ix(ieff) + 1] - param.sumlevel[ix(ieff)];
    if (static_cast<std::int64_t>(n) * param.ncov[ix(ieff)] > levels)
        mme_error("Number of animals of effect " + inttochar(ieff) + " (" + inttochar(n) +
                      ") above its number of levels (" + inttochar(levels / param.ncov[ix(ieff)]) + ")",
                  routine);
    ainv::check_pedigree(ped, n, module_name, routine);

    // Room for the effect's keys: the parents' counts bound them, each level
    // having ntrait x ncov equations.
    ainv::reserve_keys(lhs, ainv::key_bound(ainv::count_parents(ped, n),
                                            static_cast<std::int64_t>(param.ntrait) * param.ncov[ix(ieff)]));
    const effect_layout layout(param, ieff);
    const ainv::slot_prefetcher prefetch(lhs);
    if (layout.nt * layout.c == 1 && param.modelmat(1, ieff) != 0) {
        // One equation for each animal, the usual case: the generic walk over
        // traits and columns would cost more than the additions.
        const double g = param.ginv[ix(ieff)](1, 1);
        const std::int32_t offset = layout.base;  // equation of level l: offset + l
        ainv::for_each_animal(
            ped, n,
            [&](std::int32_t i, std::int32_t s, std::int32_t m) {
                ainv::for_each_pair(i, s, m, offset, 1.0,
                                    [&](std::int32_t row, std::int32_t col, double) { prefetch(row, col); });
            },
            [&](std::int32_t i, std::int32_t s, std::int32_t m, double d) {
                ainv::for_each_pair(i, s, m, offset, g * d,
                                    [&](std::int32_t row, std::int32_t col, double v) { lhs.add(row, col, v); });
            });
        return;
    }
    const std::array<double, 3> t{ainv::tvec[0], ainv::tvec[1], ainv::tvec[2]};
    ainv::for_each_animal(
        ped, n,
        [&](std::int32_t i, std::int32_t s, std::int32_t m) {
            for_each_pedcontribution(layout, {i, s, m}, t, 1.0,
                                     [&](std::int32_t row, std::int32_t col, double) { prefetch(row, col); });
        },
        [&](std::int32_t i, std::int32_t s, std::int32_t m, double d) {
            for_each_pedcontribution(layout, {i, s, m}, t, d,
                                     [&](std::int32_t row, std::int32_t col, double v) { lhs.add(row, col, v); });
        });
}

void addpedcontribution(const param_type& param, std::int32_t ieff, const std::array<std::int32_t, 3>& triple,
                        const std::array<double, 3>& t, double d, coosparse& lhs) {
    check_effect(param, ieff, "addpedcontribution");
    for_each_pedcontribution(effect_layout(param, ieff), triple, t, d,
                             [&](std::int32_t row, std::int32_t col, double v) { lhs.add(row, col, v); });
}

}  // namespace krel
