#pragma once
// The state of the direct solver of crssparse (pardiso_variable) and
// crssparse64 (pardiso_variable_64): factor once, then solve as many
// right-hand sides as wanted with that factor.
//
// The record keeps the control values of the PARDISO interface that the
// matrices were written for, and the factorisation itself is CHOLMOD's:
// crssparse uses its int routines, crssparse64 its SuiteSparse_long
// (cholmod_l_*) routines, so that a 64-bit matrix also gets 64-bit counts in
// its factor. Every operation answers with a PARDISO error code, 0 on
// success, for checkpardiso:
//   -1  input inconsistent (arrays, permutation)
//   -2  not enough memory
//   -4  zero pivot: a symmetric positive definite matrix (mtype 2) that is
//       not, or a symmetric indefinite one (mtype -2) with a zero pivot in
//       its LDL' factorisation
//   -5  unclassified internal error
//   -8  integer overflow: the factor is too large for the width of the
//       record's integers
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace krel {

// CHOLMOD's common block, factor and solve workspace of one record (defined
// where CHOLMOD is used, so that its headers stay out of the matrices').
template <class Int>
struct cholmod_state;

template <class Int>
class pardiso_record {
public:
    // Matrix types: real symmetric positive definite and real symmetric
    // indefinite.
    static constexpr Int real_spd = 2;
    static constexpr Int real_symmetric_indefinite = -2;

    // A record without solver memory (init() provides it); absent
    // arguments keep the defaults below.
    explicit pardiso_record(std::optional<Int> maxfct = std::nullopt,
                            std::optional<Int> mnum = std::nullopt,
                            std::optional<Int> mtype = std::nullopt,
                            std::optional<Int> solver = std::nullopt,
                            std::optional<Int> msglvl = std::nullopt) noexcept;
    ~pardiso_record();
    pardiso_record(pardiso_record&&) noexcept;
    pardiso_record& operator=(pardiso_record&&) noexcept;
    // One factor has one owner.
    pardiso_record(const pardiso_record&) = delete;
    pardiso_record& operator=(const pardiso_record&) = delete;

    // The solver memory, with iparm zero: what PARDISOINIT gives.
    void init();
    bool hasmemory() const { return pt != nullptr; }
    bool hasfactor() const;

    // Ordering and factorisation of the symmetric matrix whose upper
    // triangle is in the rows of the 1-based compressed-row arrays ia, ja, a
    // (columns ascending in each row; elements below the diagonal are not
    // read). perm: the fill-reducing order, 1-based (position i of the
    // permuted matrix is row perm(i)); empty lets CHOLMOD choose one. A
    // factor held before is released first.
    Int factorize(std::span<const Int> ia, std::span<const std::int32_t> ja,
                  std::span<const double> a, std::span<const Int> perm);
    // x = inverse(A) y with the factor, for nrhs columns of n elements each,
    // column-major, n the order of the matrix factored.
    Int solve(std::int64_t nrhs, const double* y, double* x);
    // Releases the factor and the solve workspace; the record keeps its
    // solver memory.
    Int release();
    // Values stored in the factor, the zeros of its dense blocks included;
    // 0 without a factor.
    std::int64_t factor_nonzeros() const;

    Int maxfct = 1;
    Int mnum = 1;
    Int mtype = real_symmetric_indefinite;
    Int msglvl = 1;
    Int phase = -9;
    Int solver = 0;
    // 64 values, 1-based as PARDISO counts them, empty when freed. Read
    // here: iparm(5) is 1 when the factorisation used the given permutation;
    // iparm(18) is set to the number of values in the factor, saturated at
    // the largest Int.
    std::vector<Int> iparm;
    // Stands where PARDISO keeps its memory handle.
    std::unique_ptr<cholmod_state<Int>> pt;
};

extern template class pardiso_record<std::int32_t>;
extern template class pardiso_record<std::int64_t>;

using pardiso_variable = pardiso_record<std::int32_t>;
using pardiso_variable_64 = pardiso_record<std::int64_t>;

// Absent arguments take the defaults: maxfct 1, mnum 1, mtype -2, solver 0,
// msglvl 1.
pardiso_variable constructor_pardiso_variable(
    std::optional<std::int32_t> maxfct = std::nullopt,
    std::optional<std::int32_t> mnum = std::nullopt,
    std::optional<std::int32_t> mtype = std::nullopt,
    std::optional<std::int32_t> solver = std::nullopt,
    std::optional<std::int32_t> msglvl = std::nullopt);
pardiso_variable_64 constructor_pardiso_variable_64(
    std::optional<std::int64_t> maxfct = std::nullopt,
    std::optional<std::int64_t> mnum = std::nullopt,
    std::optional<std::int64_t> mtype = std::nullopt,
    std::optional<std::int64_t> solver = std::nullopt,
    std::optional<std::int64_t> msglvl = std::nullopt);

// Returns when error is 0. Otherwise writes the phase and the error code on
// unit (null: standard output) and stops the run.
void checkpardiso(std::int32_t phase, std::int32_t error, std::ostream* unit = nullptr);
void checkpardiso_64(std::int64_t phase, std::int64_t error, std::ostream* unit = nullptr);

// Frees iparm and the solver memory, the factor with it.
void reset_pardiso_variable(pardiso_variable& record);
void reset_pardiso_variable(pardiso_variable_64& record);

}  // namespace krel
