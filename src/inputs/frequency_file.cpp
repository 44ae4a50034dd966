#include "inputs/frequency_file.h"

#include <string_view>

#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"

namespace krel {

namespace {
constexpr std::string_view module_name = "modapps";
}  // namespace

void readfrequency(const std::string& file, std::int32_t& n, std::vector<double>& freq) {
    if (file == "compute") return;
    const std::string procedure = procedure_at("readfrequency");
    line_reader in(file);
    if (!in.is_open()) {
        global_logger().log_io_error("The following file does not exist: " + file, module_name, procedure);
        throw error_stop();
    }
    std::string line;
    n = 0;
    while (in.next_record(line)) ++n;
    in.rewind();
    freq.assign(static_cast<std::size_t>(n), 0.0);

    std::vector<std::string_view> items;
    std::int64_t ignored = 0;
    for (std::size_t i = 0; i < freq.size(); ++i) {
        if (!in.next_record(line) || (split_items(line, items), items.size() < 2) ||
            !parse_integer(items[0], ignored) || !parse_real(items[1], freq[i])) {
            global_logger().log_io_error("Issue with the file " + std::string(trim(file)), module_name,
                                         procedure);
            throw error_stop();
        }
        check_frequency(freq[i], items[1], in.line_number(), file, module_name, procedure);
    }
}

void check_frequency(double p, std::string_view text, std::int64_t line, const std::string& file,
                     std::string_view module, const std::string& procedure) {
    if (p >= 0.0 && p <= 1.0) return;
    global_logger().log_error("The allele frequency '" + std::string(text) + "' on line " + inttochar(line) + " of " +
                                  file + " is not between 0 and 1",
                              module, procedure);
    throw error_stop();
}

}  // namespace krel
