#pragma once
// Sparse matrices: the abstract gen_sparse and its storage classes.
//
//  - coosparse:   the assembly form, a hash table of (row, column) keys in
//                 which additions to the same key accumulate;
//  - crssparse:   compressed rows with 32-bit row pointers, the form the
//                 solvers and the selected inversion take;
//  - crssparse64: the same with 64-bit row pointers;
//  - llsparse:    rows as ascending linked lists.
//
// All indices are 1-based. A symmetric matrix is stored upper (row <= column)
// and additions below its diagonal are dropped; values of magnitude below the
// machine epsilon of a double are never added. Every matrix writes its
// messages on its own output stream (standard output by default; wherever a
// stream argument is optional, null selects the default); a fatal condition
// writes its message there and throws error_stop.
//
// A matrix produced by a conversion into compressed rows keeps one reserved
// place at the start of every row: the diagonal of a square matrix, the last
// column of any other. It is stored even when it is zero, so a(ia(i)) of a
// sorted upper-stored square matrix is always the diagonal of row i.
#include <cmath>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sparse/coo_hash.h"
#include "sparse/zeroed_array.h"
#include "util/dense_matrix.h"
#include "util/standard_output.h"

namespace krel {

class coosparse;
class crssparse;
class crssparse64;
class llsparse;
struct metisgraph;
struct ordering_options;
template <class Int>
class pardiso_record;

// Conversions: each carries lupperstorage into the new matrix and then its
// lsymmetric through setsymmetric.
crssparse convertfromcootocrs(const coosparse& coo);
crssparse64 convertfromcootocrs64(const coosparse& coo);
coosparse convertfromcrstocoo(const crssparse& crs);
coosparse convertfromcrs64tocoo(const crssparse64& crs);
llsparse convertfromcootoll(const coosparse& coo);
llsparse convertfromcrstoll(const crssparse& crs);
coosparse convertfromlltocoo(const llsparse& ll);
crssparse convertfromlltocrs(const llsparse& ll);
// The graph of the full pattern of a square upper-stored matrix.
metisgraph convertfromcrstometisgraph(const crssparse& crs);

// The conversions build their results field by field.
#define KREL_SPARSE_CONVERSIONS_ARE_FRIENDS                         \
    friend crssparse convertfromcootocrs(const coosparse& coo);     \
    friend crssparse64 convertfromcootocrs64(const coosparse& coo); \
    friend coosparse convertfromcrstocoo(const crssparse& crs);     \
    friend coosparse convertfromcrs64tocoo(const crssparse64& crs); \
    friend llsparse convertfromcootoll(const coosparse& coo);       \
    friend llsparse convertfromcrstoll(const crssparse& crs);       \
    friend coosparse convertfromlltocoo(const llsparse& ll);        \
    friend crssparse convertfromlltocrs(const llsparse& ll);        \
    friend metisgraph convertfromcrstometisgraph(const crssparse& crs);

// Smallest magnitude that a sparse matrix stores: the machine epsilon of a
// double.
inline constexpr double sparse_tol = 2.220446049250313e-16;

// Where a conjugate-gradient solve stopped: the iterations run and the
// relative residual norm(y - A x) / norm(y) of the last one.
struct cg_result {
    std::int32_t iterations = 0;
    double residual = 0.0;
};

class gen_sparse {
public:
    virtual ~gen_sparse() = default;

    // Frees the arrays of the matrix.
    virtual void destroy() = 0;
    // The value of (row, col); 0.0 when it isn't stored.
    virtual double get(std::int32_t row, std::int32_t col) const = 0;
    // y = alpha op(A) x + beta y, op chosen by trans: "N"/"n" or "T"/"t".
    virtual void multgenv(double alpha, char trans, std::span<const double> x, double beta,
                          std::span<double> y) const = 0;
    // The same for the columns of x and y.
    virtual void multgenm(double alpha, char trans, const dmatrix& x, double beta,
                          dmatrix& y) const = 0;
    virtual std::int64_t totalnumberofelements() const = 0;
    // Debugging output of the elements, on output or else the unit of the
    // matrix. With lint the internal arrays are shown as they are stored.
    virtual void print(bool lint = false, std::ostream* output = nullptr) const = 0;
    // As print, with row and column i shown as lidx(i).
    virtual void print_idx(std::span<const std::int32_t> lidx,
                           std::ostream* output = nullptr) const = 0;
    // The whole matrix as a dense square of numbers.
    virtual void printsquare(std::ostream* output = nullptr) const = 0;
    virtual void scale(double alpha) = 0;

    // Solves A x = y by conjugate gradients preconditioned with the diagonal
    // of A (a diagonal element that is not positive is taken as 1), with the
    // product of the class; A must be symmetric positive definite as that
    // product reads it, so an upper-stored matrix must be marked symmetric.
    // x holds the starting value on entry. Stops when the relative residual
    // is at most tol or after maxiter iterations (default: the order of the
    // matrix). Sizes that do not fit the matrix, or a matrix that is not
    // square, stop the run.
    cg_result cg(std::span<double> x, std::span<const double> y, double tol = 1e-10,
                 std::optional<std::int32_t> maxiter = std::nullopt) const;

    // dim1 for k = 1, dim2 for k = 2, -1 otherwise.
    std::int32_t getdim(int k) const;
    void getpermutation32(std::vector<std::int32_t>& array) const;
    void getpermutation64(std::vector<std::int64_t>& array) const;
    std::ostream* getoutputunit() const { return unlog; }
    bool issorted() const { return lsorted; }
    bool issquare() const { return dim1 == dim2; }
    bool issymmetric() const { return lsymmetric; }
    bool isupperstorage() const { return lupperstorage; }
    bool haspermutation32() const { return perm.has_value(); }
    bool haspermutation64() const { return perm64.has_value(); }
    const std::string& getnamemat() const { return namemat; }
    // print or printsquare into the named file, which is replaced.
    void printtofile(const std::string& file, bool lint = false) const;
    void printsquaretofile(const std::string& file) const;
    void print_dim() const;
    // Null selects standard output.
    void setoutputunit(std::ostream* unit);
    void setpermutation32(std::span<const std::int32_t> array);
    void setpermutation64(std::span<const std::int64_t> array);
    void setsorted(bool flag) { lsorted = flag; }
    // Without a flag: a square matrix becomes symmetric. With true: the same,
    // asked for explicitly. With false: the matrix is no longer symmetric.
    void setsymmetric(std::optional<bool> flag = std::nullopt);
    void destroy_gen();
    std::int64_t getmem_gen() const;

    bool validvalue(std::int32_t row, std::int32_t col) const {
        return row >= 1 && row <= dim1 && col >= 1 && col <= dim2;
    }
    static bool validnonzero(double val) { return !(std::abs(val) < sparse_tol); }
    static bool uppervalue(std::int32_t row, std::int32_t col) { return row <= col; }

protected:
    gen_sparse() = default;
    gen_sparse(const gen_sparse&) = default;
    gen_sparse(gen_sparse&&) = default;
    gen_sparse& operator=(const gen_sparse&) = default;
    gen_sparse& operator=(gen_sparse&&) = default;

    // Sets the name and the dimensions and clears the three logicals.
    void init(std::string_view name, std::int32_t m, std::int32_t n);
    // The unit of the messages.
    std::ostream& out() const;
    // Writes the message on the unit of the matrix and stops the run.
    [[noreturn]] void stop(std::string_view message) const;
    // Stops unless op(A), trans "N"/"n" or "T"/"t", takes x of lenx rows to
    // y of leny rows, with as many columns in x as in y.
    void check_mult(char trans, std::int64_t lenx, std::int64_t leny, std::int64_t ncolx,
                    std::int64_t ncoly) const;
    // The lines of print_dim that depend on the class.
    virtual void print_dim_details(std::ostream& unit) const;

    std::ostream* unlog = &standard_output();
    std::int32_t dim1 = 0;
    std::int32_t dim2 = 0;
    std::optional<std::vector<std::int32_t>> perm;
    std::optional<std::vector<std::int64_t>> perm64;
    std::string namemat = "UNKNOWN";
    bool lsorted = false;
    bool lsymmetric = false;
    bool lupperstorage = false;

    KREL_SPARSE_CONVERSIONS_ARE_FRIENDS
};

// ---------------------------------------------------------------------------

class coosparse : public gen_sparse {
public:
    // An unset record, without a table.
    coosparse() = default;
    // m x n (n defaults to m) with a table of next_power_of_2(nel) slots
    // (128 without nel), all empty.
    explicit coosparse(std::int32_t m, std::optional<std::int32_t> n = std::nullopt,
                       std::optional<std::int64_t> nel = std::nullopt,
                       std::optional<bool> lupper = std::nullopt, std::ostream* unlog = nullptr);
    // Rebuilds the matrix in place, as the constructor.
    void constructor_sub(std::int32_t m, std::optional<std::int32_t> n = std::nullopt,
                         std::optional<std::int64_t> nel = std::nullopt,
                         std::optional<bool> lupper = std::nullopt, std::ostream* unlog = nullptr);
    // A matrix saved by save; another file stops the run.
    static coosparse load(const std::string& file, std::ostream* unlog = nullptr);

    void destroy() override;
    double get(std::int32_t row, std::int32_t col) const override;
    void multgenv(double alpha, char trans, std::span<const double> x, double beta,
                  std::span<double> y) const override;
    void multgenm(double alpha, char trans, const dmatrix& x, double beta,
                  dmatrix& y) const override;
    std::int64_t totalnumberofelements() const override { return filled; }
    void print(bool lint = false, std::ostream* output = nullptr) const override;
    void print_idx(std::span<const std::int32_t> lidx,
                   std::ostream* output = nullptr) const override;
    void printsquare(std::ostream* output = nullptr) const override;
    void scale(double alpha) override;

    // Accumulates val into (row, col).
    void add(std::int32_t row, std::int32_t col, double val);
    // Overwrites (row, col) by val, which may be zero.
    void set(std::int32_t row, std::int32_t col, double val);
    std::vector<double> diag_vect() const;
    // Upper-stored: the diagonal and the noff elements right of it.
    coosparse diag_mat(std::int32_t noff) const;
    std::int64_t getmem() const;
    void save(const std::string& file) const;
    // Rows startrow to endrow and columns startcol to endcol of the matrix
    // (both triangles of a symmetric upper-stored one), renumbered from 1.
    // With lupper the result is upper-stored, and symmetric when the source
    // is and the two ranges are the same.
    coosparse submatrix(std::int32_t startrow, std::int32_t endrow, std::int32_t startcol,
                        std::int32_t endcol, std::optional<bool> lupper = std::nullopt,
                        std::ostream* unlog = nullptr) const;
    // Rows and columns idx(1), idx(2), ... of the matrix: element (k, l) of
    // the result is (idx(k), idx(l)).
    coosparse submatrix_index(std::span<const std::int32_t> idx,
                              std::optional<bool> lupper = std::nullopt,
                              std::ostream* unlog = nullptr) const;

    // The table, for conversions and diagnostics: slot k (1-based) holds
    // row ij[2(k-1)], column ij[2(k-1)+1] and value a[k-1].
    std::int64_t getnel() const { return nel; }
    std::span<const std::int32_t> ij_table() const { return ij; }
    std::span<const double> values() const { return a; }

private:
    template <bool Accumulate>
    void insert(std::int32_t row, std::int32_t col, double val);
    // The search, growth and store of add and set for a key whose walk has
    // begun: first is the first slot of probe.
    template <bool Accumulate>
    void place(std::int32_t row, std::int32_t col, double val, hash_probe& probe,
               std::int64_t first);
    // A table twice as large holding the slots that are not below the
    // tolerance; the message is that of set.
    void grow(bool report);
    void print_dim_details(std::ostream& unit) const override;
    // The check of gen_sparse, after refusing a symmetric matrix stored in full.
    void check_mult(char trans, std::int64_t lenx, std::int64_t leny, std::int64_t ncolx,
                    std::int64_t ncoly) const;
    // y += alpha op(A) x for ncol columns, column j of x at x + j ldx and of
    // y at y + j ldy.
    void add_product(double alpha, char trans, const double* x, std::int64_t ldx, double* y,
                     std::int64_t ldy, std::int64_t ncol) const;
    // Calls f(row, col, value) for every element of the full matrix: a
    // symmetric upper-stored matrix gives its mirror elements too.
    template <class F>
    void for_each_full(F&& f) const;

    zeroed_array<std::int32_t> ij;
    std::int64_t nel = 0;
    std::int64_t filled = 0;
    zeroed_array<double> a;

    KREL_SPARSE_CONVERSIONS_ARE_FRIENDS
};

// ---------------------------------------------------------------------------

// What crssparse and crssparse64 share; IA is the type of the row pointer.
template <class IA>
class crs_base : public gen_sparse {
public:
    void destroy() override;
    double get(std::int32_t row, std::int32_t col) const override;
    // ia(dim1 + 1) - 1; before the matrix is filled that is the negative
    // mark of the constructor minus one, and -1 without arrays.
    std::int64_t totalnumberofelements() const override;
    void print(bool lint = false, std::ostream* output = nullptr) const override;
    void print_idx(std::span<const std::int32_t> lidx,
                   std::ostream* output = nullptr) const override;
    void printsquare(std::ostream* output = nullptr) const override;
    void scale(double alpha) override;

    // Adds val to an element of the pattern. status: 0, -1 when the element
    // is outside the pattern, -10 when its row was never filled. Elements
    // out of range, below the tolerance or below the diagonal of an
    // upper-stored matrix are dropped with status 0.
    void add(std::int32_t row, std::int32_t col, double val);
    void add(std::int32_t row, std::int32_t col, double val, std::int32_t& status);
    // Overwrites an element of the pattern; a zero is stored too.
    void set(std::int32_t row, std::int32_t col, double val);
    void set(std::int32_t row, std::int32_t col, double val, std::int32_t& status);
    std::int64_t getmem() const;
    void get_rowptr(std::vector<IA>& array) const { array.assign(ia.begin(), ia.end()); }
    void get_colval(std::vector<std::int32_t>& array) const { array.assign(ja.begin(), ja.end()); }
    void get_nzval(std::vector<double>& array) const { array.assign(a.begin(), a.end()); }
    // Views of the three arrays (0-based spans of 1-based indices).
    std::span<const IA> rowptr() const { return ia; }
    std::span<const std::int32_t> colval() const { return ja; }
    std::span<const double> nzval() const { return a; }
    std::span<double> nzval() { return a; }
    bool isdecomposed() const { return ldecomposed; }
    void setdecomposed(bool flag) { ldecomposed = flag; }
    // Sorts the columns of every row, with their values.
    void sort();

    // x = inverse(A) y for the symmetric (possibly indefinite) matrix given
    // by the upper triangle, by a direct solver: the first solve sorts the
    // matrix and factors it, in the order of perm when it is set (perm64
    // first for crssparse64), and writes what it did on the unit of the
    // matrix; later solves use that factor, without a word, until
    // reset_pardiso_memory. Values changed in between are not noticed. The
    // array form solves the columns of y, n x ncol. A matrix that is not
    // square gets a warning and x is left as it is; sizes that do not fit
    // stop the run before any factorisation, as does a failure of the
    // solver (through checkpardiso). msglvl: kept in the solver's record
    // for its first solve.
    void solve(std::span<double> x, std::span<const double> y,
               std::optional<std::int32_t> msglvl = std::nullopt);
    void solve(dmatrix& x, const dmatrix& y, std::optional<std::int32_t> msglvl = std::nullopt);
    // Frees the factor of solve; the next solve factors again. A matrix that
    // never solved is left as it is.
    void reset_pardiso_memory();
    // The solver's record, read-only: that of a record never used before the
    // first solve.
    const pardiso_record<IA>& getpardiso() const;

    ~crs_base() override;

protected:
    // Out of line, where the solver's record is a complete type.
    crs_base();
    // A copy holds the same matrix without the factor of solve: it factors
    // again at its own first solve.
    crs_base(const crs_base& other);
    crs_base& operator=(const crs_base& other);
    crs_base(crs_base&&) noexcept;
    crs_base& operator=(crs_base&&) noexcept;
    void construct(std::string_view name, std::int32_t m, IA nel, std::optional<std::int32_t> n,
                   std::optional<bool> lupper, std::ostream* unlog);
    void save_impl(const std::string& file, std::int32_t mark) const;
    void load_impl(const std::string& file, std::int32_t mark, std::string_view refusal,
                   std::ostream* unlog);
    void print_dim_details(std::ostream& unit) const override;
    template <bool Accumulate>
    void update(std::int32_t row, std::int32_t col, double val, std::int32_t* status);
    // The checks that solve and solveldlt make before anything else: false,
    // after the warning, for a matrix that is not square; a stop for sizes
    // that do not fit it.
    bool solve_arguments(std::int64_t xrows, std::int64_t yrows, std::int64_t xcols,
                         std::int64_t ycols) const;
    // The factorisation of the first solve and the solve of nrhs columns.
    void solve_columns(std::int64_t nrhs, const double* y, double* x,
                       std::optional<std::int32_t> msglvl);

    zeroed_array<IA> ia;
    zeroed_array<std::int32_t> ja;
    zeroed_array<double> a;
    bool lpardisofirst = true;
    bool ldecomposed = false;
    // The solver's record, made by the first solve; null before, and after
    // a copy or a destroy.
    std::unique_ptr<pardiso_record<IA>> pardiso;

    KREL_SPARSE_CONVERSIONS_ARE_FRIENDS
};

extern template class crs_base<std::int32_t>;
extern template class crs_base<std::int64_t>;

class crssparse : public crs_base<std::int32_t> {
public:
    crssparse() = default;
    // m x n (n defaults to m) with room for nel elements, all zero, and the
    // mark ia(m + 1) = -nel of a matrix not yet filled.
    crssparse(std::int32_t m, std::int32_t nel, std::optional<std::int32_t> n = std::nullopt,
              std::optional<bool> lupper = std::nullopt, std::ostream* unlog = nullptr);
    void constructor_sub(std::int32_t m, std::int32_t nel,
                         std::optional<std::int32_t> n = std::nullopt,
                         std::optional<bool> lupper = std::nullopt, std::ostream* unlog = nullptr);
    static crssparse load(const std::string& file, std::ostream* unlog = nullptr);
    void save(const std::string& file) const;

    void multgenv(double alpha, char trans, std::span<const double> x, double beta,
                  std::span<double> y) const override;
    void multgenm(double alpha, char trans, const dmatrix& x, double beta,
                  dmatrix& y) const override;

    std::vector<double> diag_vect() const;
    crssparse diag_mat(std::int32_t noff) const;
    // Overwrites the three arrays by arrays of the same sizes.
    void external(std::span<const std::int32_t> ia_, std::span<const std::int32_t> ja_,
                  std::span<const double> a_);
    // Base-10 log-determinant of the matrix from its Cholesky factor, and the
    // number of non-zero pivots. A decomposed matrix is read as it is;
    // otherwise the symmetric matrix given by its upper triangle is factored
    // on the side (CHOLMOD) in the order of perm, or of a METIS ordering
    // when perm is absent, and a pivot of at most 1e-08 drops its row and
    // column as in a generalised factor. The matrix is not changed.
    void getlogdetchol(double& logdet, std::int32_t& rank) const;
    // Monte Carlo estimate of the diagonal of the inverse of the symmetric
    // positive definite matrix given by the upper triangle: single-site
    // Gibbs sampling from N(0, inverse), as proposed by Harville, with the
    // Rao-Blackwellised estimator 1/c(i,i) + E[conditional mean(i)**2].
    // nburnin rounds are discarded, nsamples rounds are averaged. A row
    // whose diagonal is at most 1e-08 gets 0.
    std::vector<double> harville(std::int32_t nsamples, std::int32_t seed,
                                 std::int32_t nburnin = 0) const;
    // Fill-reducing ordering of the symmetric upper-stored matrix by METIS:
    // perm is replaced by dim1 1-based positions. The options given win over
    // those of metis_ordering_options.
    void getordering(std::vector<std::int32_t>& perm_out) const;
    void getordering(std::vector<std::int32_t>& perm_out, const ordering_options& options) const;
    crssparse submatrix(std::int32_t startrow, std::int32_t endrow, std::int32_t startcol,
                        std::int32_t endcol, std::optional<bool> lupper = std::nullopt,
                        std::ostream* unlog = nullptr) const;

    // Selected inversion of the symmetric positive (semi)definite matrix,
    // square and upper-stored: the values become those of its inverse on the
    // same pattern (a generalised inverse when pivots are dropped). The
    // matrix is sorted first and ordered by METIS unless perm is set; perm
    // stays set. minsizenode: see super_nodes. The times of the phases go to
    // the unit of the matrix.
    void getspainv(std::optional<std::int32_t> minsizenode = std::nullopt);
    // Unless the matrix is decomposed already: its Cholesky factor with all
    // its fill-in, upper-stored in the order of perm (row i holds L(i, i)
    // and L(j, i) in column j), sorted, decomposed and not symmetric.
    void getchol(std::optional<std::int32_t> minsizenode = std::nullopt);
    // The same factor restricted to the pattern of the matrix, renumbered in
    // the order of perm: an incomplete factor, decomposed and not symmetric.
    void getichol(std::optional<std::int32_t> minsizenode = std::nullopt);
    // The factor of getchol in the form U' D U with U unit upper: row i
    // holds D(i) in place of the diagonal and U(i, j) = L(j, i) / L(i, i)
    // (0 when L(i, i) is not positive, as for a dropped column). A matrix
    // in that form already is left as it is.
    void getldlt();
    // Solves with the factor U of getchol, in the order of the factor:
    // U' z = y, then U x = z. x and y may be the same array. A pivot of 0
    // (a dropped column) gives 0 in x. Stops unless the matrix is decomposed.
    void isolve(std::span<double> x, std::span<const double> y) const;
    // The same with the factor of getldlt: U' z = y with unit U, z / D,
    // then U x = z with unit U; a D of 0 gives 0.
    void solveldlt_s(std::span<double> x, std::span<const double> y) const;
    // x = inverse(A) y by the factor of getldlt, made at the first call
    // with the messages of the first solve (without the number of values in
    // the factor); later calls reuse it. The matrix holds the factor from
    // then on, as after getchol. A matrix that is not square and sizes that
    // do not fit are handled as by solve. msglvl is accepted as by solve; the
    // factorisation here writes its phase times on the unit either way.
    void solveldlt(std::span<double> x, std::span<const double> y,
                   std::optional<std::int32_t> msglvl = std::nullopt);
    void solveldlt(dmatrix& x, const dmatrix& y,
                   std::optional<std::int32_t> msglvl = std::nullopt);

private:
    char kind() const;
    // The factorisation of the first solveldlt, with its messages, and the
    // solve of nrhs columns in the order of the matrix.
    void solveldlt_columns(std::int64_t nrhs, const double* y, double* x);
    // Triangular solves on the stored factor; see isolve and solveldlt_s.
    void factor_solve(std::span<double> x, std::span<const double> y, bool ldlt) const;

    // The values hold the factor of getldlt rather than that of getchol or
    // getichol.
    bool lldlt = false;
};

class crssparse64 : public crs_base<std::int64_t> {
public:
    crssparse64() = default;
    crssparse64(std::int32_t m, std::int64_t nel, std::optional<std::int32_t> n = std::nullopt,
                std::optional<bool> lupper = std::nullopt, std::ostream* unlog = nullptr);
    void constructor_sub(std::int32_t m, std::int64_t nel,
                         std::optional<std::int32_t> n = std::nullopt,
                         std::optional<bool> lupper = std::nullopt, std::ostream* unlog = nullptr);
    static crssparse64 load(const std::string& file, std::ostream* unlog = nullptr);
    void save(const std::string& file) const;

    // No product with 64-bit row pointers: a warning, and y = x.
    void multgenv(double alpha, char trans, std::span<const double> x, double beta,
                  std::span<double> y) const override;
    void multgenm(double alpha, char trans, const dmatrix& x, double beta,
                  dmatrix& y) const override;
};

// ---------------------------------------------------------------------------

class llsparse : public gen_sparse {
public:
    llsparse() = default;
    explicit llsparse(std::int32_t m, std::optional<std::int32_t> n = std::nullopt,
                      std::optional<bool> lupper = std::nullopt, std::ostream* unlog = nullptr);
    void constructor_sub(std::int32_t m, std::optional<std::int32_t> n = std::nullopt,
                         std::optional<bool> lupper = std::nullopt, std::ostream* unlog = nullptr);

    void destroy() override;
    double get(std::int32_t row, std::int32_t col) const override;
    void multgenv(double alpha, char trans, std::span<const double> x, double beta,
                  std::span<double> y) const override;
    void multgenm(double alpha, char trans, const dmatrix& x, double beta,
                  dmatrix& y) const override;
    std::int64_t totalnumberofelements() const override;
    void print(bool lint = false, std::ostream* output = nullptr) const override;
    void print_idx(std::span<const std::int32_t> lidx,
                   std::ostream* output = nullptr) const override;
    void printsquare(std::ostream* output = nullptr) const override;
    void scale(double alpha) override;

    // A new node at the head or the tail of the row.
    void addtohead(std::int32_t row, std::int32_t col, double val);
    void addtotail(std::int32_t row, std::int32_t col, double val);
    // Keeps the row ascending: a column already there accumulates.
    void addinorder(std::int32_t row, std::int32_t col, double val);

private:
    static constexpr std::int64_t none = -1;
    struct node {
        std::int32_t col;
        double val;
        std::int64_t next;
    };
    bool accepts(std::int32_t row, std::int32_t col, double val) const;
    std::int64_t newnode(std::int32_t col, double val, std::int64_t next);
    template <class F>
    void for_each(F&& f) const;

    // heads(i) is the first node of row i; nodes live in one pool and link
    // by their place in it, so that a long row is freed in one go.
    std::vector<std::int64_t> heads;
    std::vector<node> nodes;

    KREL_SPARSE_CONVERSIONS_ARE_FRIENDS
};

#undef KREL_SPARSE_CONVERSIONS_ARE_FRIENDS

template <class F>
void llsparse::for_each(F&& f) const {
    for (std::size_t r = 0; r < heads.size(); ++r)
        for (std::int64_t p = heads[r]; p != none; p = nodes[static_cast<std::size_t>(p)].next) {
            const node& nd = nodes[static_cast<std::size_t>(p)];
            f(static_cast<std::int32_t>(r + 1), nd.col, nd.val);
        }
}

}  // namespace krel
