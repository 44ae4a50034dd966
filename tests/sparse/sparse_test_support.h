#pragma once
// Shared by the sparse matrix tests: dense images of sparse matrices, random
// matrices, dense products, and the capture of a fatal stop with its message.
#include <gtest/gtest.h>

#include <iostream>
#include <random>
#include <sstream>
#include <string>

#include "sparse/sparse_matrix.h"
#include "util/dense_linear_algebra.h"
#include "util/dense_matrix.h"
#include "util/error_stop.h"

namespace krel::testing {

// Standard output routed into a string for the lifetime of the object.
class cout_capture {
public:
    cout_capture() : old_(std::cout.rdbuf(text_.rdbuf())) {}
    ~cout_capture() { std::cout.rdbuf(old_); }
    cout_capture(const cout_capture&) = delete;
    cout_capture& operator=(const cout_capture&) = delete;
    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* old_;
};

// Runs f, which must stop the run; returns what was written on unit.
template <class F>
std::string stop_message(std::ostringstream& unit, F&& f) {
    unit.str({});
    EXPECT_THROW(f(), error_stop);
    return unit.str();
}

// Runs f, which must stop the run; returns what went to standard output.
template <class F>
std::string stop_message_on_cout(F&& f) {
    cout_capture capture;
    EXPECT_THROW(f(), error_stop);
    return capture.text();
}

// The matrix as its get answers, element by element.
inline dmatrix dense_of(const gen_sparse& m) {
    dmatrix d(m.getdim(1), m.getdim(2));
    for (std::int32_t i = 1; i <= m.getdim(1); ++i)
        for (std::int32_t j = 1; j <= m.getdim(2); ++j) d(i, j) = m.get(i, j);
    return d;
}

// A random m x n matrix with about density of its elements non-zero; with
// upper only the upper triangle, and a non-zero diagonal when diag is set.
inline dmatrix random_dense(std::int32_t m, std::int32_t n, double density, unsigned seed,
                            bool upper = false, bool diag = false) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::uniform_real_distribution<double> v(-2.0, 2.0);
    dmatrix d(m, n);
    for (std::int32_t i = 1; i <= m; ++i)
        for (std::int32_t j = 1; j <= n; ++j) {
            if (upper && j < i) continue;
            if ((diag && i == j) || u(gen) < density) d(i, j) = v(gen);
        }
    return d;
}

// Upper triangle mirrored: the symmetric matrix an upper-stored one stands for.
inline dmatrix symmetric_of_upper(const dmatrix& up) {
    dmatrix d = up;
    for (dmatrix::index_type i = 1; i <= d.rows(); ++i)
        for (dmatrix::index_type j = 1; j < i; ++j) d(i, j) = up(j, i);
    return d;
}

// A symmetric matrix with a random sparse pattern and a dominant diagonal,
// positive definite or of both signs (every third diagonal negative).
inline dmatrix random_symmetric(std::int32_t n, double density, unsigned seed, bool definite = true) {
    dmatrix a = symmetric_of_upper(random_dense(n, n, density, seed, true));
    for (std::int32_t i = 1; i <= n; ++i) {
        double s = 1.0;
        for (std::int32_t j = 1; j <= n; ++j)
            if (j != i) s += std::abs(a(i, j));
        a(i, i) = definite || i % 3 != 0 ? s : -s;
    }
    return a;
}

// The generalised inverse that drops row and column k: the dense inverse of
// the rest, with a zero row and column k.
inline dmatrix inverse_without(const dmatrix& a, std::int32_t k) {
    const std::int32_t n = static_cast<std::int32_t>(a.rows());
    auto skip = [k](std::int32_t i) { return i < k ? i : i + 1; };
    dmatrix rest(n - 1, n - 1);
    for (std::int32_t j = 1; j < n; ++j)
        for (std::int32_t i = 1; i < n; ++i) rest(i, j) = a(skip(i), skip(j));
    invsym(rest);
    dmatrix g(n, n);
    for (std::int32_t j = 1; j < n; ++j)
        for (std::int32_t i = 1; i < n; ++i) g(skip(i), skip(j)) = rest(i, j);
    return g;
}

// The upper triangle only.
inline dmatrix upper_of(const dmatrix& a) {
    dmatrix d = a;
    for (dmatrix::index_type i = 1; i <= d.rows(); ++i)
        for (dmatrix::index_type j = 1; j < i && j <= d.cols(); ++j) d(i, j) = 0.0;
    return d;
}

// c = alpha op(a) b + beta c, plainly.
inline dmatrix dense_product(double alpha, char trans, const dmatrix& a, const dmatrix& b,
                             double beta, const dmatrix& c) {
    const bool t = trans == 'T' || trans == 't';
    dmatrix r = c;
    const auto rows = t ? a.cols() : a.rows();
    const auto inner = t ? a.rows() : a.cols();
    for (dmatrix::index_type j = 1; j <= b.cols(); ++j)
        for (dmatrix::index_type i = 1; i <= rows; ++i) {
            double s = 0.0;
            for (dmatrix::index_type k = 1; k <= inner; ++k) s += (t ? a(k, i) : a(i, k)) * b(k, j);
            r(i, j) = alpha * s + beta * c(i, j);
        }
    return r;
}

inline double max_abs_diff(const dmatrix& a, const dmatrix& b) {
    EXPECT_EQ(a.rows(), b.rows());
    EXPECT_EQ(a.cols(), b.cols());
    double d = 0.0;
    for (std::size_t k = 0; k < a.size() && k < b.size(); ++k)
        d = std::max(d, std::abs(a.data()[k] - b.data()[k]));
    return d;
}

inline dmatrix random_block(dmatrix::index_type m, dmatrix::index_type n, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> v(-1.0, 1.0);
    dmatrix d(m, n);
    for (std::size_t k = 0; k < d.size(); ++k) d.data()[k] = v(gen);
    return d;
}

// The matrix and vector products of m against those of the dense matrix full
// it stands for, under each transposition given.
inline void expect_products_match(const gen_sparse& m, const dmatrix& full, const std::string& transes) {
    for (char trans : transes) {
        const bool t = trans == 'T' || trans == 't';
        const auto xr = t ? full.rows() : full.cols(), yr = t ? full.cols() : full.rows();
        const dmatrix x = random_block(xr, 3, 1), y0 = random_block(yr, 3, 2);
        dmatrix y = y0;
        m.multgenm(0.7, trans, x, -0.4, y);
        EXPECT_LT(max_abs_diff(y, dense_product(0.7, trans, full, x, -0.4, y0)), 1e-12) << trans;
        std::vector<double> xv(x.column(2), x.column(2) + xr), yv(y0.column(2), y0.column(2) + yr);
        m.multgenv(2.0, trans, xv, 0.5, yv);
        const dmatrix ref = dense_product(2.0, trans, full, x, 0.5, y0);
        for (dmatrix::index_type i = 1; i <= yr; ++i) EXPECT_NEAR(yv[i - 1], ref(i, 2), 1e-12) << trans;
    }
}

// A coosparse holding the elements of d; with upper only those on or above
// the diagonal are added (the others are dropped by the matrix itself).
inline coosparse coo_of(const dmatrix& d, bool upper, bool symmetric, std::int64_t nel = 16) {
    coosparse c(static_cast<std::int32_t>(d.rows()), static_cast<std::int32_t>(d.cols()), nel,
                upper);
    for (std::int32_t i = 1; i <= d.rows(); ++i)
        for (std::int32_t j = 1; j <= d.cols(); ++j)
            if (d(i, j) != 0.0) c.add(i, j, d(i, j));
    if (symmetric) c.setsymmetric(true);
    return c;
}

}  // namespace krel::testing
