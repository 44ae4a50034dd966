#pragma once
// The METIS 5 side of the sparse matrices: the graph of a symmetric pattern,
// the option array of the nested-dissection ordering and the translation of
// METIS return codes into error stops.
#include <array>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <vector>

#include "util/standard_output.h"

namespace krel {

// Graph of the full symmetric pattern of a matrix, 1-based, in the layout
// METIS takes: the neighbours of vertex i are adjncy(xadj(i)) to
// adjncy(xadj(i + 1) - 1). No vertex is its own neighbour and there are no
// vertex weights (vwgt stays null).
struct metisgraph {
    metisgraph() = default;
    metisgraph(std::int32_t nvertices, std::int32_t nedges, std::ostream* unlog = nullptr);
    // Rebuilds the graph in place: xadj of nvertices + 1 and adjncy of
    // 2 * nedges zeros.
    void constructor_sub(std::int32_t nvertices, std::int32_t nedges,
                         std::ostream* unlog = nullptr);

    std::ostream* unlog = &standard_output();
    std::int32_t nvertices = 0;
    std::int32_t nedges = 0;  // each edge counted once
    std::vector<std::int32_t> xadj;
    std::vector<std::int32_t> adjncy;
    std::int32_t* vwgt = nullptr;
};

// The options array of METIS: places 0 to 40.
using metis_options_array = std::array<std::int32_t, 41>;

// Values that overwrite the METIS defaults; an absent one keeps the default.
struct metis_options {
    std::optional<std::int32_t> ptype{}, objtype{}, ctype{}, iptype{}, rtype{}, ncuts{}, nseps{},
        niter{}, seed{}, minconn{}, no2hop{}, contig{}, compress{}, ccorder{}, pfactor{}, ufactor{},
        dbglvl{};
};

// METIS defaults, 1-based numbering, then every present value in its place.
// Returns the status of METIS_SetDefaultOptions.
int metis_setoptions(metis_options_array& options, const metis_options& values = {});

// Returns on METIS_OK; otherwise writes the name of the failure on unit
// (null: standard output) and stops the run.
void metis_checkerror(int status, std::ostream* unit = nullptr);

// The options of a fill-reducing ordering that the caller may set; the rest
// are those of METIS.
struct ordering_options {
    std::optional<std::int32_t> ctype{}, iptype{}, rtype{}, compress{}, ccorder{}, pfactor{},
        nseps{}, dbglvl{};
};

// Number of separators tried at each bisection for a matrix of order n: more
// tries pay off only on large graphs, where a better separator saves much
// fill.
std::int32_t metis_default_nseps(std::int32_t n);

// The options array with which a matrix of order n is ordered: random
// matching, edge-based initial separators, two-sided node refinement, no
// compression, components not ordered apart, dense vertices kept, silence,
// and nseps by size; given values win. A failure of METIS stops on unit.
metis_options_array metis_ordering_options(std::int32_t n, const ordering_options& given = {},
                                           std::ostream* unit = nullptr);

// Nested-dissection ordering of the graph: perm (1-based, of nvertices
// entries) lists the vertices in elimination order. A failure of METIS
// stops on the graph's unit.
void metis_nodend(metisgraph& graph, const metis_options_array& options,
                  std::vector<std::int32_t>& perm);

}  // namespace krel
