#include "util/dense_square_file.h"

#include <cassert>
#include <fstream>
#include <string>

#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"

namespace krel {

namespace {

constexpr std::string_view module_name = "modstructure";

}  // namespace

void densesquare_type::write_densesquare(const std::string& filename,
                                         std::string_view format) const {
    if (format != "_tri" && format != "tri") {
        // A wrong format is a slip in a request for extra output: the
        // evaluation itself is unaffected, so the run goes on.
        global_logger().log_error("The format \"" + std::string(format) +
                                      "\" for the densesquare matrix is not implemented!",
                                  module_name, procedure_at("write_densesquare"));
        return;
    }

    assert(ids.size() >= static_cast<std::size_t>(n) && a.rows() >= n && a.cols() >= n);
    std::ofstream out(filename, std::ios::out | std::ios::trunc);
    if (!out) {
        global_logger().log_error("Cannot open the file \"" + filename + "\"", module_name,
                                  procedure_at("write_densesquare"));
        throw error_stop();
    }

    std::string line = std::to_string(n) + " 0 \n";
    out << line;
    line.clear();
    for (std::int32_t i = 0; i < n; ++i) {
        line += std::to_string(ids[static_cast<std::size_t>(i)]);
        line += ' ';
    }
    line += '\n';
    out << line;
    for (dmatrix::index_type i = 1; i <= n; ++i) {
        line.clear();
        const double* ci = a.column(i);
        for (dmatrix::index_type k = 0; k < i; ++k) {
            line += realtochar(ci[k], "(e0.8)");
            line += ' ';
        }
        line += '\n';
        out << line;
    }
    out.close();
    if (!out) {
        global_logger().log_error("Cannot write the file \"" + filename + "\"", module_name,
                                  procedure_at("write_densesquare"));
        throw error_stop();
    }
}

}  // namespace krel
