#include "inputs/model_data.h"

#include <cmath>

#include "inputs/solution_files.h"
#include "inputs/variance_files.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"

namespace krel {

namespace {

constexpr const char* module_reverse = "modreverse";

}  // namespace

void krel_abstract::read_model_files() {
    auto& log = global_logger();
    ped.readpedigree_nomax(pedfile);
    ped.getorder(order);
    if (inbfile == "none")
        ped.computeinbreeding_ped();
    else
        ped.readinbreeding(inbfile);

    log.log_message("Details on the pedigree:\nNumber of animals        : " + inttochar(ped.nreal()) +
                    "\nMax ID                   : " + inttochar(ped.nlength()) +
                    "\nNumber of genetics groups: " + inttochar(ped.nupg));

    bool have_h2 = false;
    if (h2file != "none") {
        readh2(h2file, ntrait, h2);
        have_h2 = true;
    }
    if (rvcv != "none") readrf(rvcv, ntrait, rmat);
    const bool have_gvar = gvcv != "none";
    if (have_gvar) {
        if (ntrait == 0) {
            // Without heritabilities or residuals, the genetic file's rows
            // tell the number of traits.
            record_reader in(gvcv);
            std::string_view record;
            while (in.next(record)) ntrait += !blank_record(record);
        }
        gvar.assign(static_cast<std::size_t>(effect) + 1, dmatrix());
        readgf(gvcv, effect, ntrait, gvar[effect]);
    }
    if (ntrait < 1 || (!have_h2 && (!have_gvar || rmat.size() < 2))) {
        log.log_error("Heritabilities, or genetic and residual (co)variances, must be provided", module_reverse,
                      procedure_at("readdata_asci_abstract"));
        throw error_stop();
    }
    if (have_h2) {
        if (have_gvar) {
            log.log_information("Residual variances are computed from the provided genetic variances and heritabilities.");
            if (rmat.size() < 2) rmat.assign(2, dmatrix(ntrait, ntrait));
            for (std::int32_t t = 1; t <= ntrait; ++t)
                rmat[1](t, t) = gvar[effect](t, t) * (1.0 - h2[t]) / h2[t];
        } else {
            log.log_information("All residual variances are assumed to be equal to 1.");
            rmat.assign(2, dmatrix(ntrait, ntrait));
            gvar.assign(static_cast<std::size_t>(effect) + 1, dmatrix());
            gvar[effect].resize(ntrait, ntrait);
            for (std::int32_t t = 1; t <= ntrait; ++t) {
                rmat[1](t, t) = 1.0;
                gvar[effect](t, t) = h2[t] / (1.0 - h2[t]);
            }
        }
    } else {
        h2.assign(static_cast<std::size_t>(ntrait) + 1, 0.0);
        for (std::int32_t t = 1; t <= ntrait; ++t) {
            const double g = gvar[effect](t, t);
            h2[t] = g / (g + rmat[1](t, t));
        }
    }
    writeg(rmat[1], ntrait, ntrait, "VCV residual matrix", effect);
    writeg(gvar[effect], ntrait, ntrait, "VCV genetic matrix", effect);
    dmatrix h2column(ntrait, 1);
    for (std::int32_t t = 1; t <= ntrait; ++t) h2column(t, 1) = h2[t];
    writeg(h2column, ntrait, 1, "Heritabilies", effect);
    log.log_message(" ");

    const std::int32_t n = ped.nlength();
    pev.resize(n, ntrait);
    rel.resize(n, ntrait);
    if (pevfile != "none") readsol(pevfile, effect, pev);
    if (relfile != "none") readsol_tarnelo(relfile, rel);
    if ((pevfile == "none") == (relfile == "none")) {
        log.log_error("A pedfile or relfile must be at least provided", module_reverse,
                      procedure_at("readdata_asci_abstract"));
        throw error_stop();
    }
    // Inbreeding enters whatever the model says about it: these are the
    // pedigree-based values, and F is part of the animal's own variance.
    for (std::int32_t t = 1; t <= ntrait; ++t) {
        const double g = gvar[effect](t, t);
        for (std::int32_t i = 1; i <= n; ++i) {
            const double f = ped.inb[i];
            if (pevfile != "none")
                rel(i, t) = 1.0 - pev(i, t) / std::fma(f, g, g);
            else
                pev(i, t) = g * (1.0 - rel(i, t)) * (1.0 + f);
        }
    }
}

}  // namespace krel
