#include "util/numeric_helpers.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <numeric>
#include <stdexcept>

#include <quadmath.h>

#include "util/dense_matrix.h"

namespace krel {

std::vector<std::int64_t> sort_index(std::span<std::int64_t> keys) {
    std::vector<std::int64_t> index(keys.size());
    std::iota(index.begin(), index.end(), std::int64_t{0});
    std::stable_sort(index.begin(), index.end(), [&keys](std::int64_t a, std::int64_t b) {
        return keys[static_cast<std::size_t>(a)] < keys[static_cast<std::size_t>(b)];
    });
    std::vector<std::int64_t> sorted(keys.size());
    for (std::size_t k = 0; k < index.size(); ++k) sorted[k] = keys[static_cast<std::size_t>(index[k])];
    std::copy(sorted.begin(), sorted.end(), keys.begin());
    return index;
}

double mean(std::span<const double> x) {
    if (x.empty()) return std::numeric_limits<double>::quiet_NaN();
    return std::accumulate(x.begin(), x.end(), 0.0) / static_cast<double>(x.size());
}

double var(std::span<const double> x) {
    if (x.size() < 2) return std::numeric_limits<double>::quiet_NaN();
    // Two passes: subtracting the mean first avoids the cancellation of the
    // sum-of-squares shortcut when the values sit far from zero.
    const double m = mean(x);
    double ss = 0.0;
    for (double v : x) ss += (v - m) * (v - m);
    return ss / static_cast<double>(x.size() - 1);
}

std::vector<double> diag(std::span<const double> v) {
    const std::size_t n = v.size();
    std::vector<double> a(n * n, 0.0);
    for (std::size_t i = 0; i < n; ++i) a[i * n + i] = v[i];
    return a;
}

std::vector<double> diag(std::span<const double> a, std::size_t nrow, std::size_t ncol) {
    if (a.size() != nrow * ncol)
        throw std::invalid_argument("diag: the matrix does not hold nrow*ncol values");
    const std::size_t n = std::min(nrow, ncol);
    std::vector<double> d(n);
    for (std::size_t i = 0; i < n; ++i) d[i] = a[i * nrow + i];
    return d;
}

void diag(std::span<const double> v, dmatrix& a) {
    const auto n = static_cast<dmatrix::index_type>(v.size());
    a.resize(n, n);
    for (dmatrix::index_type i = 1; i <= n; ++i) a(i, i) = v[static_cast<std::size_t>(i - 1)];
}

std::vector<double> diag(const dmatrix& a) {
    const dmatrix::index_type n = std::min(a.rows(), a.cols());
    std::vector<double> d(static_cast<std::size_t>(n));
    for (dmatrix::index_type i = 1; i <= n; ++i) d[static_cast<std::size_t>(i - 1)] = a(i, i);
    return d;
}

std::vector<double> eye(std::size_t n) {
    std::vector<double> a(n * n, 0.0);
    for (std::size_t i = 0; i < n; ++i) a[i * n + i] = 1.0;
    return a;
}

__float128 cdf_norm(__float128 x, __float128 loc, __float128 scale) {
    // erfc of the negated argument rather than 1 + erf: no cancellation in
    // the lower tail, where the result is tiny.
    return 0.5Q * erfcq(-(x - loc) / (scale * sqrtq(2.0Q)));
}

bool make_directory_all(const std::string& path, std::error_code& ec) {
    ec.clear();
    if (path.empty()) {
        ec = std::make_error_code(std::errc::invalid_argument);
        return false;
    }
    std::filesystem::create_directories(path, ec);
    if (ec) return false;
    // create_directories reports nothing when the name exists as something
    // other than a directory on some library versions.
    if (!std::filesystem::is_directory(path, ec)) {
        if (!ec) ec = std::make_error_code(std::errc::not_a_directory);
        return false;
    }
    return true;
}

std::string to_lower(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

std::string_view trim(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const auto b = text.find_first_not_of(blanks);
    if (b == std::string_view::npos) return {};
    const auto e = text.find_last_not_of(blanks);
    return text.substr(b, e - b + 1);
}

}  // namespace krel
