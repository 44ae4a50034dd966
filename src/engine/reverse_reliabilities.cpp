#include "engine/reverse_reliabilities.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "engine/erc_reversal.h"
#include "util/dense_linear_algebra.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"

namespace krel {

namespace {

std::ofstream open_result(const std::string& file, const char* routine) {
    std::ofstream out(file);
    if (!out) {
        global_logger().log_io_error("Cannot write the file " + file + ": " + std::strerror(errno), "modreverse",
                                     procedure_at(routine));
        throw error_stop();
    }
    return out;
}

}  // namespace

void write_pevercrel(const std::string& file, std::int32_t effect, std::span<const std::int32_t> list,
                     const dmatrix& data, const std::string& descriptor) {
    auto out = open_result(file, "write_pevercrel");
    const std::string format = "(" + descriptor + ")";
    const std::string lead_effect = inttochar(effect) + " 0 ";
    std::string line;
    for (const std::int32_t id : list) {
        line = inttochar(id);
        line += ' ';
        line += lead_effect;
        for (dmatrix::index_type t = 1; t <= data.rows(); ++t) {
            line += realtochar(data(t, id), format);
            line += ' ';
        }
        line += '\n';
        out << line;
    }
    if (!out.flush()) {
        global_logger().log_io_error("Cannot write the file " + file, "modreverse", procedure_at("write_pevercrel"));
        throw error_stop();
    }
}

void reverse_type::init_reverse(const std::string& ped_file, const std::string& gvcv_file,
                                const std::string& rvcv_file, const std::string& h2_file,
                                const std::string& pev_file, const std::string& rel_file, std::int32_t animal_effect,
                                const std::string& inb_file) {
    pedfile = ped_file;
    gvcv = gvcv_file;
    rvcv = rvcv_file;
    h2file = h2_file;
    pevfile = pev_file;
    relfile = rel_file;
    inbfile = inb_file;
    effect = animal_effect;
    read_model_files();
    // Every real animal takes part.
    selected.resize(ped.nreal());
    for (std::int32_t i = 1; i <= ped.nreal(); ++i) selected[i - 1] = i;
    write_files = true;
}

void reverse_type::compute_reverse(const std::optional<std::string>& name) {
    auto& log = global_logger();
    const std::int32_t nt = ntrait;
    const std::int32_t n = ped.nlength();
    // Trait by trait: correlations are dropped.
    std::vector<double> ginv(nt + 1), rinv(nt + 1), h2t(nt + 1);
    for (std::int32_t t = 1; t <= nt; ++t) {
        double g = gvar[effect](t, t), r = rmat[1](t, t);
        h2t[t] = g / (g + r);
        std::int32_t rank = 0;
        ginv1(&g, 1, 1, 1e-08, rank);
        ginv1(&r, 1, 1, 1e-08, rank);
        ginv[t] = g;
        rinv[t] = r;
    }
    // Records outside the list link the pedigree but carry no own information.
    dmatrix target(nt, n), relt(nt, n);
    for (const std::int32_t id : selected)
        for (std::int32_t t = 1; t <= nt; ++t) {
            target(t, id) = pev(id, t);
            relt(t, id) = rel(id, t);
        }
    erc.resize(nt, n);
    dmatrix one_target(1, n), one_erc;
    std::vector<double> one_rel(static_cast<std::size_t>(n) + 1, 0.0);
    for (std::int32_t t = 1; t <= nt; ++t) {
        log.log_message("Reverse reliabilities for the animals (trait " + inttochar(t) + ")");
        for (std::int32_t i = 1; i <= n; ++i) {
            one_target(1, i) = target(t, i);
            one_rel[i] = relt(t, i);
        }
        erc_rev(ped, order, n, ped.nupg, dmatrix(1, 1, ginv[t]), dmatrix(1, 1, rinv[t]), one_target, one_rel,
                h2t[t], 30, one_erc);
        for (std::int32_t i = 1; i <= n; ++i) erc(t, i) = one_erc(1, i);
    }
    if (!write_files) return;
    write_pevercrel(name.value_or("qd_reverse_erc.dat"), effect, selected, erc, "f0.5");
    auto out = open_result("qd_sum_reverse_erc.dat", "compute_reverse");
    for (std::int32_t t = 1; t <= nt; ++t) {
        double sum = 0.0;
        for (const std::int32_t id : selected) sum += erc(t, id);
        out << inttochar(t) << " 0 0 " << realtochar(sum, "(g0)") << '\n';
    }
}

void reverse_type::clean_reverse() {
    order = {};
    rmat = {};
    gvar = {};
    pev = dmatrix();
    rel = dmatrix();
}

}  // namespace krel
