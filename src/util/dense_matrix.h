#pragma once
// The dense matrix of the program: doubles in column-major order, leading
// dimension equal to the number of rows, one contiguous block, so that data()
// can be handed to BLAS and LAPACK as it is.
//
// Element access is 1-BASED: a(1, 1) is the first element and a(i, j) is
// data()[(j - 1) * rows() + (i - 1)]. The formulas of the numerical code are
// written with 1-based subscripts and read the same way in the source. Raw
// pointer code working on data() uses the usual 0-based offsets.
//
// Access is not range checked in release builds; debug builds assert.
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace krel {

class dmatrix {
public:
    using index_type = std::int64_t;

    dmatrix() noexcept = default;
    // All elements zero.
    dmatrix(index_type rows, index_type cols) { resize(rows, cols); }
    dmatrix(index_type rows, index_type cols, double value) {
        resize(rows, cols);
        assign(value);
    }

    index_type rows() const noexcept { return rows_; }
    index_type cols() const noexcept { return cols_; }
    // Leading dimension: always rows(), there is no padding.
    index_type ld() const noexcept { return rows_; }
    std::size_t size() const noexcept { return v_.size(); }
    bool empty() const noexcept { return v_.empty(); }

    double* data() noexcept { return v_.data(); }
    const double* data() const noexcept { return v_.data(); }
    // Start of (1-based) column j.
    double* column(index_type j) noexcept {
        assert(j >= 1 && j <= cols_);
        return v_.data() + (j - 1) * rows_;
    }
    const double* column(index_type j) const noexcept {
        assert(j >= 1 && j <= cols_);
        return v_.data() + (j - 1) * rows_;
    }

    // 1-based row i, column j.
    double& operator()(index_type i, index_type j) noexcept {
        assert(i >= 1 && i <= rows_ && j >= 1 && j <= cols_);
        return v_[static_cast<std::size_t>((j - 1) * rows_ + (i - 1))];
    }
    const double& operator()(index_type i, index_type j) const noexcept {
        assert(i >= 1 && i <= rows_ && j >= 1 && j <= cols_);
        return v_[static_cast<std::size_t>((j - 1) * rows_ + (i - 1))];
    }

    // New shape with every element zero. The old contents are not kept: with
    // a column-major layout they would land in the wrong places anyway. The
    // storage is reused when it is large enough.
    void resize(index_type rows, index_type cols) {
        if (rows < 0 || cols < 0) throw std::length_error("dmatrix: negative dimension");
        rows_ = rows;
        cols_ = cols;
        v_.assign(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols), 0.0);
    }
    // Every element set to value; the shape is unchanged.
    void assign(double value) { v_.assign(v_.size(), value); }

private:
    index_type rows_ = 0;
    index_type cols_ = 0;
    std::vector<double> v_;
};

}  // namespace krel
