#pragma once
// The pedigree: every animal and every genetic group (or metafounder) is a
// positive integer, its level; real animals come first (1 to nreal), groups
// last. Zero is an unknown parent.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "util/dense_matrix.h"

namespace krel {

class coosparse;

class pedigree_type {
public:
    pedigree_type() = default;

    // Number of genetic groups, or of metafounders when ismeta is set.
    std::int32_t nupg = 0;
    // Inbreeding coefficients by level (index 0 unused); empty until computed or read.
    std::vector<double> inb;
    // Relationships among metafounders, indexed by level minus nreal.
    dmatrix metarel;
    // Name of the pedigree file; empty for a pedigree built in memory.
    std::optional<std::string> pedfile;
    bool ismeta = false;
    // Method of inbreeding: 1 Meuwissen and Luo, 2 Sargolzaei et al.
    std::int32_t inbmethod = 1;

    // Parents of level id (1-based): k = 1 sire, k = 2 dam.
    std::int32_t ped(int k, std::int32_t id) const { return ped_[2 * static_cast<std::size_t>(id) + k - 1]; }
    std::int32_t& ped(int k, std::int32_t id) { return ped_[2 * static_cast<std::size_t>(id) + k - 1]; }
    std::int32_t sire(std::int32_t id) const { return ped(1, id); }
    std::int32_t dam(std::int32_t id) const { return ped(2, id); }

    // Releases everything: a re-read starts clean.
    void finalise();
    // A pedigree of nlevels levels, all parents unknown, built in memory.
    void allocate(std::int32_t nlevels, std::int32_t groups);

    std::int32_t nlength() const { return nlevels_; }
    std::int32_t nreal() const { return nlevels_ - nupg; }
    bool has_inbreeding() const { return !inb.empty(); }

    // Reads a file of unknown size: nlevels is the highest level named and
    // nupg its excess over the highest identity in the first column.
    void readpedigree_nomax(const std::string& file);
    // The same file with the sizes given by the caller.
    void readpedigree_max(const std::string& file, std::int32_t nlevels, std::int32_t groups);
    void readmetarel(const std::string& file, std::int32_t effect);

    // Levels from old to young (order[p], p = 1..n; index 0 unused), groups
    // first; optionally inverse[id], the position of each level.
    void getorder(std::vector<std::int32_t>& order, std::vector<std::int32_t>* inverse = nullptr,
                  std::optional<std::int32_t> n = std::nullopt,
                  std::optional<std::int32_t> groups = std::nullopt) const;
    // Longest ancestral path of each level (index 0 unused).
    void getlap(std::vector<std::int32_t>& lap) const;
    // Ascending list of the real animals in ids and all their ancestors.
    void getancestors(std::span<const std::int32_t> ids, std::vector<std::int32_t>& ancestors) const;
    // Ascending list of the levels in ids and all their descendants.
    void getdescendants(std::span<const std::int32_t> ids, std::vector<std::int32_t>& descendants) const;
    // Rows of pa (nlevels by m) of levels that are not known become parent averages.
    void compute_pa(dmatrix& pa, std::span<const char> known) const;

    void print_pedigree(const std::optional<std::string>& prefix = std::nullopt) const;
    std::string printstats_pedigree() const;

    // Inbreeding.
    std::int32_t checkval() const;
    void computeinbreeding_ped(const std::optional<std::string>& outdir = std::nullopt);
    void readinbreeding(const std::string& file);

    // Inverse of the numerator relationship matrix by Henderson's rules with
    // the inbreeding of the parents (inb must be filled). Adds the
    // contribution of each of the levels 1 to n, the level's number being
    // its equation; a group parent counts as a founder level.
    void addrandompart_eff_ani_inb(coosparse& lhs, std::int32_t n) const;
    // The inverse relationship matrix of levels 1 to n (default: all) in a
    // new upper-stored symmetric matrix of order n, sized not to grow.
    void computeasparse_ped(coosparse& asparse, std::optional<std::int32_t> n = std::nullopt) const;

private:
    // Warns about genetic groups that are parents of no animal.
    void warn_unused_groups() const;

    std::int32_t nlevels_ = 0;
    std::vector<std::int32_t> ped_;  // sire and dam of each level, level 0 unused
};

}  // namespace krel
