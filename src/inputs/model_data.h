#pragma once
// What the reliability engine and the reversal share of the pedigree model:
// the pedigree, inbreeding, variance components and the animals' pedigree
// PEV or reliabilities.
#include <cstdint>
#include <string>
#include <vector>

#include "inputs/pedigree.h"
#include "util/dense_matrix.h"

namespace krel {

class krel_abstract {
public:
    krel_abstract() = default;
    virtual ~krel_abstract() = default;
    krel_abstract(const krel_abstract&) = delete;
    krel_abstract& operator=(const krel_abstract&) = delete;

    // File names; "none" when the option was not given.
    std::string pedfile = "none", inbfile = "none", h2file = "none", rvcv = "none", gvcv = "none",
                pevfile = "none", relfile = "none";
    std::int32_t ntrait = 0;
    std::int32_t effect = 0;
    // Residual (co)variances by class (rmat[0] unused), as the file gives them.
    std::vector<dmatrix> rmat;
    // Genetic (co)variances by effect (gvar[0] unused); only the animal
    // effect's slice is filled.
    std::vector<dmatrix> gvar;
    // Heritabilities by trait (h2[0] unused).
    std::vector<double> h2;
    // Pedigree PEV and reliabilities, level by trait.
    dmatrix pev, rel;
    pedigree_type ped;
    std::vector<std::int32_t> order;

    std::int32_t getsizeped() const { return ped.nlength(); }
    virtual void read_model_files();

private:
    // Stops on a pedigree PEV or reliability of a real animal that no
    // reliability in [0, 1) stands for.
    void check_pedigree_reliabilities() const;
};

}  // namespace krel
