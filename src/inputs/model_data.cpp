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
    if (ped.nlength() == 0) {
        // Every later file would be blamed for levels outside an empty pedigree.
        log.log_error("The pedigree file " + pedfile + " holds no animal", module_reverse,
                      procedure_at("readdata_asci_abstract"));
        throw error_stop();
    }
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
    if ((pevfile == "none") == (relfile == "none")) {
        log.log_error("A pedfile or relfile must be at least provided", module_reverse,
                      procedure_at("readdata_asci_abstract"));
        throw error_stop();
    }
    if (pevfile != "none" && readsol(pevfile, effect, pev) == 0) {
        log.log_error("The PEV file " + pevfile + " holds no record of the effect " + inttochar(effect) +
                          " given by --effect",
                      module_reverse, procedure_at("readdata_asci_abstract"));
        throw error_stop();
    }
    if (relfile != "none") readsol_tarnelo(relfile, rel);
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
    check_pedigree_reliabilities();
}

void krel_abstract::check_pedigree_reliabilities() const {
    // A reliability of 1 (a PEV of 0, or an animal the PEV file leaves out)
    // is infinite information, and one outside [0, 1) is no reliability:
    // either turns the reversal of every related animal into NaN. The groups
    // take no part in the reversal. The bound of a PEV leaves room for the
    // rounding of the files.
    const bool given_pev = pevfile != "none";
    const std::string& file = given_pev ? pevfile : relfile;
    for (std::int32_t t = 1; t <= ntrait; ++t) {
        const double g = gvar[effect](t, t);
        for (std::int32_t i = 1; i <= ped.nreal(); ++i) {
            const double r = rel(i, t);
            if (r >= 0.0 && r < 1.0) continue;
            if (r < 0.0 && given_pev && pev(i, t) <= g * (1.0 + ped.inb[i]) * (1.0 + 1e-5)) continue;
            std::string why;
            if (!given_pev)
                why = " the reliability " + realtochar(r, "(g0.6)") + ", outside [0, 1)";
            else if (pev(i, t) == 0.0)
                why = " no PEV above 0 (a PEV of 0, or no record, makes its reliability 1)";
            else
                why = " the PEV " + realtochar(pev(i, t), "(g0.6)") + ", outside (0, " +
                      realtochar(g * (1.0 + ped.inb[i]), "(g0.6)") + "], the genetic variance times 1 + F";
            global_logger().log_error("The " + std::string(given_pev ? "PEV" : "REL") + " file " + file +
                                          " gives level " + inttochar(i) + " (trait " + inttochar(t) + ")" + why,
                                      module_reverse, procedure_at("readdata_asci_abstract"));
            throw error_stop();
        }
    }
}

}  // namespace krel
