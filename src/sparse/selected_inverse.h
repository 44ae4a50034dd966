#pragma once
// Selected inversion of a symmetric positive (semi)definite matrix held as an
// upper-stored crssparse: the elements of the inverse that lie on the
// matrix's own pattern, without forming the inverse. The work is a symbolic
// factorisation with compressed subscripts (smbfct), a supernodal Cholesky
// factorisation on dense blocks, the supernodal recursion from the last
// column backward (super_sparsinv, in sparse/supernodal_kernels.h) and a
// write-back into the matrix's values.
// The same pipeline gives the Cholesky factor with all its fill-in
// (crssparse::getchol) or restricted to the pattern of the matrix
// (crssparse::getichol).
//
// The factor is in compressed column storage, 0-based arrays of 1-based
// values, for the permuted matrix: position i of the permuted matrix is row
// perm(i) of the matrix, and
//  - xlnz (neqns + 1): column j of the strict lower factor occupies
//    positions xlnz(j) to xlnz(j + 1) - 1 of xspars;
//  - xnzsub (neqns + 1), nzsub: the subscript of position k of column j is
//    nzsub(xnzsub(j) + k - xlnz(j)); subscripts ascend within a column, and
//    columns with the same tail share their storage;
//  - xspars: the off-diagonal values, diag (neqns): the diagonal ones.
#include <array>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "sparse/zeroed_array.h"

namespace krel {

// Wall-clock seconds of the six phases: symbolic factorisation, set-up of
// the values, supernodes, Cholesky factorisation, inversion, write-back.
using spainv_times = std::array<double, 6>;

// The off-diagonal values of a factor, created unset: computexsparsdiag
// writes every one of them, so each page is touched once. (No huge pages:
// on a machine whose memory is fragmented, the compaction they call for at
// the first touch costs more than the factorisation gains from them.)
class factor_values {
public:
    factor_values() = default;
    explicit factor_values(std::size_t n) : data_(new double[n]), size_(n) {}
    std::size_t size() const { return size_; }
    double* data() { return data_.get(); }
    const double* data() const { return data_.get(); }
    double* begin() { return data_.get(); }
    double* end() { return data_.get() + size_; }
    const double* begin() const { return data_.get(); }
    const double* end() const { return data_.get() + size_; }
    operator std::span<double>() { return {data_.get(), size_}; }
    operator std::span<const double>() const { return {data_.get(), size_}; }

private:
    std::unique_ptr<double[]> data_;
    std::size_t size_ = 0;
};

// The factor of the pipeline.
struct spainv_factor {
    std::vector<std::int32_t> xlnz;
    std::vector<std::int32_t> xnzsub;
    std::vector<std::int32_t> nzsub;
    factor_values xspars;
    std::vector<double> diag;
};

// The values of the upper-stored matrix ia, ja, a (CRS, 1-based, the
// diagonal first in every row) become those of its inverse on its pattern.
// xadj, adjncy: the full adjacency of the matrix without diagonal, released
// once the symbolic factorisation is done with it, so that it is not part of
// the peak memory; perm the fill-reducing order. minsizenode: see
// super_nodes (default 0). The times of the phases go to unit (null:
// standard output).
void get_spainv_crs(std::span<const std::int32_t> ia, std::span<const std::int32_t> ja,
                    std::span<double> a, std::vector<std::int32_t>& xadj,
                    std::vector<std::int32_t>& adjncy, std::span<const std::int32_t> perm,
                    std::optional<std::int32_t> minsizenode = std::nullopt,
                    std::ostream* unit = nullptr);

// The pipeline shared by the selected inversion and the factorisations:
// symbolic factorisation, values, supernodes, Cholesky factorisation and,
// when lspainv is set, the inversion, each timed in times(1) to times(5).
// The graph is released after the symbolic factorisation. The write-back
// (times(6)) and writetime are the caller's.
void get_ichol_spainv_crs(std::int32_t neqns, std::span<const std::int32_t> ia,
                          std::span<const std::int32_t> ja, std::span<const double> a,
                          std::vector<std::int32_t>& xadj, std::vector<std::int32_t>& adjncy,
                          std::span<const std::int32_t> perm, bool lspainv,
                          spainv_factor& factor, std::int32_t minsizenode, spainv_times& times);

// Runs smbfct until nzsub fits: from maxsub subscripts, doubling the storage
// while it is too small; nzsub is then trimmed to the exact size. On return
// maxsub is the size of nzsub and maxlnz that of the strict lower factor.
void symbolicfact(std::int32_t neqns, std::int32_t& maxsub, std::span<const std::int32_t> xadj,
                  std::span<const std::int32_t> adjncy, std::span<const std::int32_t> perm,
                  std::vector<std::int32_t>& xlnz, std::int32_t& maxlnz,
                  std::vector<std::int32_t>& xnzsub, std::vector<std::int32_t>& nzsub);

// Symbolic factorisation with compressed subscripts. flag: 0 on success, with
// maxsub replaced by the number of subscripts used; 1 when nzsub (of maxsub
// entries) is too small; 2 when the factor has more elements than a 32-bit
// position can address. rchlnk, mrglnk and marker are work arrays of neqns
// entries.
void smbfct(std::int32_t neqns, std::span<const std::int32_t> xadj,
            std::span<const std::int32_t> adjncy, std::span<const std::int32_t> perm,
            std::span<const std::int32_t> invp, std::span<std::int32_t> xlnz,
            std::int32_t& maxlnz, std::span<std::int32_t> xnzsub, std::span<std::int32_t> nzsub,
            std::int32_t& maxsub, std::span<std::int32_t> rchlnk, std::span<std::int32_t> mrglnk,
            std::span<std::int32_t> marker, std::int32_t& flag);

// Fills diag and xspars (both zero first) with the matrix in the order of
// perm: diag(i) = a(ia(perm(i))), and every position of the factor that is an
// element of the matrix takes its value; fill-in stays zero.
void computexsparsdiag(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                       std::span<double> xspars, std::span<const std::int32_t> xnzsub,
                       std::span<const std::int32_t> nzsub, std::span<double> diag,
                       std::span<const std::int32_t> ia, std::span<const std::int32_t> ja,
                       std::span<const double> a, std::span<const std::int32_t> perm);

// The write-back: the diagonal and every element of the matrix's pattern take
// the values of the factor's arrays; fill-in has no place and is dropped.
void converttoija(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                  std::span<const double> xspars, std::span<const std::int32_t> xnzsub,
                  std::span<const std::int32_t> nzsub, std::span<const double> diag,
                  std::span<const std::int32_t> ia, std::span<const std::int32_t> ja,
                  std::span<double> a, std::span<const std::int32_t> perm);

// The factor as an upper-stored CRS matrix in the order of the permuted
// matrix, with all its fill-in: row i holds L(i, i) first and then L(j, i)
// in column j, ascending.
void convertfactortoija(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                        std::span<const double> xspars, std::span<const std::int32_t> xnzsub,
                        std::span<const std::int32_t> nzsub, std::span<const double> diag,
                        zeroed_array<std::int32_t>& ia, zeroed_array<std::int32_t>& ja,
                        zeroed_array<double>& a);

// The factor restricted to the pattern of the matrix, in the order of the
// permuted matrix. On entry ia, ja (and a) are the upper-stored matrix; on
// return they are the upper pattern of P A P' (row i, column j for every
// element (perm(i), perm(j)) of the matrix, the diagonal of every row
// included) with the diagonal first and the columns ascending, holding
// L(i, i) and L(j, i).
void converttoija_noperm(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                         std::span<const double> xspars, std::span<const std::int32_t> xnzsub,
                         std::span<const std::int32_t> nzsub, std::span<const double> diag,
                         zeroed_array<std::int32_t>& ia, zeroed_array<std::int32_t>& ja,
                         zeroed_array<double>& a, std::span<const std::int32_t> perm);

// " CRS MATRIX " with the label, then the six phases and their total.
void writetime(std::ostream& unit, const spainv_times& times, std::string_view label);

}  // namespace krel
