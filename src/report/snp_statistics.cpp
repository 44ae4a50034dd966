#include "report/snp_statistics.h"

#include <quadmath.h>

#include <charconv>
#include <cfloat>
#include <cmath>
#include <fstream>
#include <limits>

#include "util/error_stop.h"
#include "util/freeform.h"
#include "util/logger.h"

namespace krel {

namespace {

constexpr double na = std::numeric_limits<double>::quiet_NaN();

std::string number_text(double v) {
    if (std::isnan(v)) return "NA";
    if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

// ln erfc(x) for large x, where erfc itself is below the 16-byte range:
// erfc(x) = exp(-x^2) / (x sqrt(pi)) * (1 - 1/(2x^2) + 1*3/(2x^2)^2 - ...).
__float128 log_erfc_asymptotic(__float128 x) {
    const __float128 w = 1 / (2 * x * x);
    __float128 term = 1, sum = 1;
    for (int k = 1; k <= 12; ++k) {
        term *= -(2 * k - 1) * w;
        sum += term;
    }
    return -x * x - logq(x) - 0.5Q * logq(M_PIq) + logq(sum);
}

}  // namespace

std::vector<snp_annotation> read_bim_annotation(const std::string& bim_file, std::int32_t nsnp) {
    std::ifstream in(bim_file);
    if (!in) {
        global_logger().log_io_error("The following file does not exist: " + bim_file, "report",
                                     procedure_at("read_bim_annotation"));
        throw error_stop();
    }
    std::vector<snp_annotation> out;
    out.reserve(static_cast<std::size_t>(std::max<std::int32_t>(nsnp, 0)));
    std::string line;
    std::vector<std::string_view> items;
    for (std::int64_t record = 1; static_cast<std::int32_t>(out.size()) < nsnp && std::getline(in, line); ++record) {
        split_items(line, items);
        std::int64_t pos = 0;
        const bool ok = items.size() >= 6 && parse_integer(items[3], pos);
        if (!ok) {
            global_logger().log_error("Record " + std::to_string(record) + " of " + bim_file +
                                          " has no chromosome, identifier, position and two alleles",
                                      "report", procedure_at("read_bim_annotation"));
            throw error_stop();
        }
        out.push_back({std::string(items[0]), std::string(items[1]), pos, std::string(items[5]), std::string(items[4])});
    }
    if (static_cast<std::int32_t>(out.size()) < nsnp) {
        global_logger().log_error("The file " + bim_file + " holds fewer than " + std::to_string(nsnp) + " SNPs",
                                  "report", procedure_at("read_bim_annotation"));
        throw error_stop();
    }
    return out;
}

std::vector<snp_annotation> numbered_annotation(std::int32_t nsnp) {
    std::vector<snp_annotation> out;
    for (std::int32_t j = 1; j <= nsnp; ++j) out.push_back({"NA", std::to_string(j), j, "NA", "NA"});
    return out;
}

double minus_log10_p(double b, double varhat) {
    const __float128 u = fabsq(static_cast<__float128>(b)) / sqrtq(static_cast<__float128>(varhat));
    const __float128 x = u / sqrtq(2.0Q);
    const __float128 p = erfcq(x);
    // Well inside the normal 16-byte range erfcq is exact to its last digits;
    // below it the series takes over.
    if (p > FLT128_MIN * 1e30Q) return static_cast<double>(-log10q(p));
    return static_cast<double>(-log_erfc_asymptotic(x) / M_LN10q);
}

std::string p_text(double p, double log10_p) {
    if (std::isnan(log10_p)) return "NA";
    if (p >= DBL_MIN) return number_text(p);
    // p = m 10^-e with 1 <= m < 10.
    const double e = std::ceil(log10_p);
    double m = std::pow(10.0, e - log10_p);
    double exponent = e;
    if (m >= 9.9999995) {
        m = 1.0;
        exponent -= 1.0;
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6ge-%.0f", m, exponent);
    return buf;
}

std::vector<snp_test> snp_tests(const std::vector<double>& b, const std::vector<double>& varhat,
                                const std::vector<bool>& varies, const std::vector<double>& freq) {
    std::vector<snp_test> out(b.size());
    for (std::size_t j = 0; j < b.size(); ++j) {
        snp_test& s = out[j];
        s.a1_freq = j < freq.size() ? freq[j] : na;
        const double v = varhat[j];
        s.informative = j < varies.size() && varies[j] && std::isfinite(v) && v > 0.0 && std::isfinite(b[j]);
        if (!s.informative) {
            s.beta = s.se = s.z = s.p = s.log10_p = na;
            continue;
        }
        s.beta = b[j];
        s.se = std::sqrt(v);
        s.z = static_cast<double>(static_cast<__float128>(b[j]) / sqrtq(static_cast<__float128>(v)));
        const __float128 u = fabsq(static_cast<__float128>(b[j])) / sqrtq(static_cast<__float128>(v));
        s.p = static_cast<double>(erfcq(u / sqrtq(2.0Q)));
        s.log10_p = minus_log10_p(b[j], v);
    }
    return out;
}

void write_sumstats(const std::string& file, const std::vector<snp_annotation>& snps,
                    const std::vector<snp_test>& tests) {
    std::ofstream out(file);
    out << sumstats_header << '\n';
    std::string row;
    for (std::size_t j = 0; j < tests.size() && j < snps.size(); ++j) {
        const snp_annotation& a = snps[j];
        const snp_test& s = tests[j];
        row.clear();
        row += a.chrom + '\t' + (a.chrom == "NA" ? std::string("NA") : std::to_string(a.pos)) + '\t' + a.id +
               '\t' + a.a1 + '\t' + a.omitted + '\t' + number_text(s.a1_freq) + '\t' + number_text(s.beta) +
               '\t' + number_text(s.se) + '\t' + number_text(s.z) + '\t' + p_text(s.p, s.log10_p) + '\t' +
               number_text(s.log10_p) + '\n';
        out << row;
    }
    out.close();
    if (!out) {
        global_logger().log_io_error("Cannot write the file " + file, "report", procedure_at("write_sumstats"));
        throw error_stop();
    }
}

std::string trait_file_name(std::string_view stem, std::string_view ext, std::int32_t t, std::int32_t ntrait) {
    std::string name(stem);
    if (ntrait > 1) name += "_trait" + std::to_string(t);
    name += '.';
    name += ext;
    return name;
}

}  // namespace krel
