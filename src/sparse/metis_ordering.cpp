#include "sparse/metis_ordering.h"

#include <metis.h>

#include <iostream>
#include <string_view>

#include "util/error_stop.h"

namespace krel {

static_assert(sizeof(idx_t) == sizeof(std::int32_t), "METIS must be built with 32-bit indices");
static_assert(METIS_NOPTIONS < std::tuple_size_v<metis_options_array>);

metisgraph::metisgraph(std::int32_t nvertices_, std::int32_t nedges_, std::ostream* unlog_) {
    constructor_sub(nvertices_, nedges_, unlog_);
}

void metisgraph::constructor_sub(std::int32_t nvertices_, std::int32_t nedges_,
                                 std::ostream* unlog_) {
    unlog = unlog_ ? unlog_ : &std::cout;
    nvertices = nvertices_;
    nedges = nedges_;
    xadj.assign(static_cast<std::size_t>(nvertices) + 1, 0);
    adjncy.assign(2 * static_cast<std::size_t>(nedges), 0);
    vwgt = nullptr;
}

int metis_setoptions(metis_options_array& options, const metis_options& values) {
    options.fill(0);
    const int status = METIS_SetDefaultOptions(options.data());
    options[METIS_OPTION_NUMBERING] = 1;
    auto put = [&options](const std::optional<std::int32_t>& value, int place) {
        if (value) options[static_cast<std::size_t>(place)] = *value;
    };
    put(values.ptype, METIS_OPTION_PTYPE);
    put(values.objtype, METIS_OPTION_OBJTYPE);
    put(values.ctype, METIS_OPTION_CTYPE);
    put(values.iptype, METIS_OPTION_IPTYPE);
    put(values.rtype, METIS_OPTION_RTYPE);
    put(values.dbglvl, METIS_OPTION_DBGLVL);
    put(values.niter, METIS_OPTION_NITER);
    put(values.ncuts, METIS_OPTION_NCUTS);
    put(values.seed, METIS_OPTION_SEED);
    put(values.no2hop, METIS_OPTION_NO2HOP);
    put(values.minconn, METIS_OPTION_MINCONN);
    put(values.contig, METIS_OPTION_CONTIG);
    put(values.compress, METIS_OPTION_COMPRESS);
    put(values.ccorder, METIS_OPTION_CCORDER);
    put(values.pfactor, METIS_OPTION_PFACTOR);
    put(values.nseps, METIS_OPTION_NSEPS);
    put(values.ufactor, METIS_OPTION_UFACTOR);
    return status;
}

void metis_checkerror(int status, std::ostream* unit) {
    if (status == METIS_OK) return;
    std::string_view text;
    switch (status) {
        case METIS_ERROR_INPUT:
            text = " METIS_ERROR_INPUT";
            break;
        case METIS_ERROR_MEMORY:
            text = " METIS_ERROR_MEMORY";
            break;
        case METIS_ERROR:
            text = " METIS_ERROR";
            break;
        default:
            text = " UNKNOWN METIS_ERROR";
            break;
    }
    std::ostream& out = unit ? *unit : std::cout;
    out << text << '\n';
    out.flush();
    throw error_stop();
}

std::int32_t metis_default_nseps(std::int32_t n) {
    if (n < 50000) return 1;
    if (n < 200000) return 5;
    return 10;
}

metis_options_array metis_ordering_options(std::int32_t n, const ordering_options& given,
                                           std::ostream* unit) {
    metis_options values;
    values.ctype = given.ctype.value_or(METIS_CTYPE_RM);
    values.iptype = given.iptype.value_or(METIS_IPTYPE_EDGE);
    values.rtype = given.rtype.value_or(METIS_RTYPE_SEP2SIDED);
    values.compress = given.compress.value_or(0);
    values.ccorder = given.ccorder.value_or(0);
    values.pfactor = given.pfactor.value_or(0);
    values.nseps = given.nseps.value_or(metis_default_nseps(n));
    values.dbglvl = given.dbglvl.value_or(0);
    metis_options_array options{};
    metis_checkerror(metis_setoptions(options, values), unit);
    return options;
}

void metis_nodend(metisgraph& graph, const metis_options_array& options,
                  std::vector<std::int32_t>& perm) {
    perm.assign(static_cast<std::size_t>(graph.nvertices), 0);
    // METIS refuses a graph without vertices; its ordering is empty anyway.
    if (graph.nvertices == 0) return;
    std::vector<idx_t> iperm(static_cast<std::size_t>(graph.nvertices));
    metis_options_array work = options;  // METIS takes the options by non-const pointer
    idx_t nvtxs = graph.nvertices;
    const int status = METIS_NodeND(&nvtxs, graph.xadj.data(), graph.adjncy.data(), graph.vwgt,
                                    work.data(), perm.data(), iperm.data());
    metis_checkerror(status, graph.unlog);
}

}  // namespace krel
