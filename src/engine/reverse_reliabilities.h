#pragma once
// From pedigree reliabilities back to effective record contributions, trait
// by trait, for a selected list of records; and the one writer of result
// records.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "inputs/model_data.h"
#include "util/dense_matrix.h"

namespace krel {

class reverse_type : public krel_abstract {
public:
    // Records that take part (levels), in the caller's order.
    std::vector<std::int32_t> selected;
    // Result: ERC, trait by record (1-based both).
    dmatrix erc;
    // Whether compute_reverse writes its files; only stand-alone objects do.
    bool write_files = false;

    // A stand-alone object read from files; the write switch is set.
    void init_reverse(const std::string& pedfile, const std::string& gvcv, const std::string& rvcv,
                      const std::string& h2file, const std::string& pevfile, const std::string& relfile,
                      std::int32_t effect, const std::string& inbfile = "none");
    void compute_reverse(const std::optional<std::string>& name = std::nullopt);
    // Frees the inputs; erc, the pedigree and the selected list stay.
    void clean_reverse();
};

// One record per entry of list: the level, the effect, 0, then the values
// data(:, level) in the edit descriptor, each item followed by one blank.
void write_pevercrel(const std::string& file, std::int32_t effect, std::span<const std::int32_t> list,
                     const dmatrix& data, const std::string& descriptor = "g0");

}  // namespace krel
