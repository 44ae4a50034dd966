#include "inputs/variance_files.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "util/dense_linear_algebra.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"

namespace krel {

namespace {

constexpr const char* module_name = "modparameters";

record_reader open_or_stop(const std::string& file, const char* routine) {
    record_reader in;
    if (!in.open(file)) {
        global_logger().log_io_error("Cannot open the file " + file, module_name, procedure_at(routine));
        throw error_stop();
    }
    return in;
}

[[noreturn]] void stop_with(const std::string& message, const char* routine) {
    global_logger().log_error(message, module_name, procedure_at(routine));
    throw error_stop();
}

// A NaN or an infinity in a (co)variance would reach every reliability.
void require_finite(double v, const record_reader& in, std::string_view record, const char* routine) {
    if (std::isfinite(v)) return;
    stop_with("The file " + in.file() + " holds a value that is not a finite number at line " +
                  std::to_string(in.line_number()) + ": \"" + printable_excerpt(record) + "\"",
              routine);
}

}  // namespace

void readh2(const std::string& file, std::int32_t& n, std::vector<double>& h2) {
    record_reader in = open_or_stop(file, "readh2");
    h2.assign(1, 0.0);
    std::string_view record;
    while (in.next(record)) {
        if (blank_record(record)) continue;
        item_cursor items(record);
        double v = 0.0;
        if (!items.next_real(v)) {
            warn_reading_stopped(in, record);
            break;
        }
        // 0 and 1 leave no genetic or no residual variance, and the one
        // derived from the other would divide by zero.
        if (!(v > 0.0 && v < 1.0))
            stop_with("The heritability file " + file + " gives the heritability " + printable_excerpt(trim(record)) +
                          " at line " + std::to_string(in.line_number()) +
                          ": a heritability must lie between 0 and 1, both excluded",
                      "readh2");
        h2.push_back(v);
    }
    n = static_cast<std::int32_t>(h2.size()) - 1;
    if (n == 0) stop_with("The heritability file " + file + " holds no heritability", "readh2");
}

void readgf(const std::string& file, std::int32_t effect, std::int32_t ntrait, dmatrix& gvar) {
    (void)effect;  // the caller picks the slice of the effect
    record_reader in = open_or_stop(file, "readgf");
    // A larger matrix keeps its extents: the SNP variances have room for 80 traits.
    if (gvar.rows() < ntrait || gvar.cols() < ntrait) gvar.resize(ntrait, ntrait);
    std::string_view record;
    for (std::int32_t t = 1; t <= ntrait; ++t) {
        bool ok = false;
        while (in.next(record)) {
            if (blank_record(record)) continue;
            item_cursor items(record);
            ok = true;
            for (std::int32_t u = 1; u <= t && ok; ++u) {
                ok = items.next_real(gvar(t, u));
                if (ok) require_finite(gvar(t, u), in, record, "readgf");
            }
            break;
        }
        if (!ok) {
            global_logger().log_io_error("Cannot read the file properly", module_name, procedure_at("readgf"), std::nullopt,
                                         "no readable row " + inttochar(t) + " in " + file);
            throw error_stop();
        }
        for (std::int32_t u = 1; u < t; ++u) gvar(u, t) = gvar(t, u);
    }
    if (!ispositive(gvar, ntrait))
        stop_with("The (co)variance matrix of the file " + file + " is not positive definite", "readgf");
}

void readrf(const std::string& file, std::int32_t& ntrait, std::vector<dmatrix>& rmat) {
    record_reader in = open_or_stop(file, "readrf");
    struct row {
        std::int32_t cls, r;
        std::vector<double> values;
    };
    std::vector<row> rows;
    std::string_view record;
    // The message alone would leave the user to search the file: where and why follow it.
    auto malformed_because = [&](const std::string& where) {
        global_logger().log_error("The format of the residual covariance file is not correct!", module_name,
                                  procedure_at("readrf"));
        global_logger().log_message(where);
        throw error_stop();
    };
    auto malformed = [&] {
        malformed_because("Line " + std::to_string(in.line_number()) + " of " + file + " is not a class, a row r and " +
                          "the r values of that row: \"" + printable_excerpt(record) + "\"");
    };
    std::int32_t nclass = 0, maxrow = 0;
    while (in.next(record)) {
        if (blank_record(record)) continue;
        item_cursor items(record);
        row x{};
        if (!items.next_int(x.cls) || !items.next_int(x.r) || x.cls < 1 || x.r < 1) malformed();
        // Row r holds r values: they are read before anything is sized by r.
        for (std::int32_t u = 1; u <= x.r; ++u) {
            double v = 0.0;
            if (!items.next_real(v)) malformed();
            require_finite(v, in, record, "readrf");
            x.values.push_back(v);
        }
        nclass = std::max(nclass, x.cls);
        maxrow = std::max(maxrow, x.r);
        rows.push_back(std::move(x));
    }
    if (ntrait == 0) ntrait = maxrow;
    // Classes are numbered from 1, each given by its rows. A few classes may
    // be left out (they are warned about below); a class number far above the
    // count of rows is no numbering of classes, and every class is a matrix.
    if (maxrow > ntrait)
        malformed_because(file + " gives a row " + inttochar(maxrow) + " of a matrix of " + inttochar(ntrait) +
                          " traits");
    if (static_cast<std::size_t>(nclass) > rows.size() + 1000)
        malformed_because(file + " numbers a class " + inttochar(nclass) + " but gives only " +
                          std::to_string(rows.size()) + " rows");
    rmat.assign(static_cast<std::size_t>(nclass) + 1, dmatrix());
    std::vector<char> given(static_cast<std::size_t>(nclass) + 1, 0);
    for (std::int32_t c = 1; c <= nclass; ++c) rmat[c].resize(ntrait, ntrait);
    for (const auto& x : rows) {
        given[x.cls] = 1;
        for (std::int32_t u = 1; u <= x.r; ++u) rmat[x.cls](x.r, u) = rmat[x.cls](u, x.r) = x.values[u - 1];
    }
    for (std::int32_t c = 1; c <= nclass; ++c) {
        if (!given[c]) {
            global_logger().log_warning("The class " + inttochar(c) + " of the residual covariance matrix is not provided!",
                                        module_name, procedure_at("readrf"));
            continue;
        }
        if (!ispositive(rmat[c], ntrait)) {
            global_logger().log_error("The residual matrix for the class " + inttochar(c) + " is not positive definite!",
                                      module_name, procedure_at("readrf"));
            throw error_stop();
        }
    }
}

void writeg(const dmatrix& a, std::int32_t n, std::int32_t m, const std::string& title, std::int32_t effect) {
    std::string text = title + "\n  Effect  Covariable  Trait  (Co)variance(s)";
    for (std::int32_t i = 1; i <= n; ++i) {
        text += fmt::format("\n{:>8}{:>12}{:>7} ", effect, 1, i);
        for (std::int32_t j = 1; j <= m; ++j) text += fmt::format(" {:>12}", realtochar(a(i, j), "(es12.4)"));
    }
    global_logger().log_message(text);
}

}  // namespace krel
