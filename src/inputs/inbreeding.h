#pragma once
// Inbreeding coefficients of a pedigree renumbered into positions from old to
// young (groups or metafounders first), by Meuwissen and Luo (1993) or by
// Sargolzaei et al. (2005), each with a variant for metafounders.
//
// Coefficients are indexed by position: f[0] .. f[n + 1], where f[0] stands
// for an unknown parent while a routine runs and is 0 on return.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "util/dense_matrix.h"

namespace krel {

// The pedigree in positions: tmpped(1, p) is the sire and tmpped(2, p) the
// dam of position p (1..n), 0 when unknown; parents stand at lower positions
// than their offspring, and positions 1 to nupg are groups without parents.
class tmpped_type {
public:
    tmpped_type() = default;
    explicit tmpped_type(std::int32_t n) : n_(n), v_(2 * (static_cast<std::size_t>(n) + 1), 0) {}

    std::int32_t size() const { return n_; }
    std::int32_t& operator()(int k, std::int32_t p) { return v_[2 * static_cast<std::size_t>(p) + k - 1]; }
    std::int32_t operator()(int k, std::int32_t p) const { return v_[2 * static_cast<std::size_t>(p) + k - 1]; }
    std::int32_t sire(std::int32_t p) const { return (*this)(1, p); }
    std::int32_t dam(std::int32_t p) const { return (*this)(2, p); }
    // Every parent entry of positions 1..n.
    std::span<std::int32_t> entries() { return std::span<std::int32_t>(v_).subspan(2); }
    std::span<const std::int32_t> entries() const { return std::span<const std::int32_t>(v_).subspan(2); }
    void release() {
        n_ = 0;
        std::vector<std::int32_t>().swap(v_);
    }

private:
    std::int32_t n_ = 0;
    std::vector<std::int32_t> v_;  // sire and dam of each position, position 0 unused
};

// Groups are turned into unknown parents in tmpped. f is replaced.
void compute_f_meuwissen_and_luo(tmpped_type& tmpped, std::int32_t n, std::int32_t nupg, std::vector<double>& f);
// Every animal must trace to metafounders on both sides; metarel is their
// relationship matrix, by position. f[1..nupg] holds metarel(k, k) - 1.
void compute_f_meuwissen_and_luo_meta(const tmpped_type& tmpped, std::int32_t n, std::int32_t nupg,
                                      const dmatrix& metarel, std::vector<double>& f);
// Groups are turned into unknown parents in tmpped. f is replaced.
void compute_f_sargolzaei_etal(tmpped_type& tmpped, std::int32_t n, std::int32_t nupg, std::vector<double>& f);
// An animal with an unknown sire gets 0; f[1..nupg] holds metarel(k, k) - 1.
void compute_f_sargolzaei_etal_meta(const tmpped_type& tmpped, std::int32_t n, std::int32_t nupg,
                                    const dmatrix& metarel, std::vector<double>& f);

// One animal i of Meuwissen and Luo: d[i] and f[i] from the coefficients of
// its ancestors. l and link (n + 1 entries) must be all zero on entry and are
// all zero again on return.
void meuwluo(const tmpped_type& tmpped, std::int32_t i, std::int32_t n, std::vector<double>& f,
             std::vector<double>& l, std::vector<double>& d, std::vector<std::int32_t>& link);
// The same with metafounders: chol is the lower Cholesky factor of their
// relationship matrix (upper triangle zero). An unknown parent stops the run.
void meuwluo_meta(const tmpped_type& tmpped, std::int32_t i, std::int32_t n, std::vector<double>& f,
                  std::vector<double>& l, std::vector<double>& d, std::vector<std::int32_t>& link,
                  std::int32_t nupg, const dmatrix& chol);

}  // namespace krel
