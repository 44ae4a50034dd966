#include "app/result_checks.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"

namespace krel {

namespace {

constexpr const char* module_name = "krel";

// A value item is good when it reads as a finite number in full; a field of
// stars (a value too wide for its format) or a NaN or an Inf is not.
bool finite_item(const std::string& item) {
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(item.c_str(), &end);
    return end != item.c_str() && *end == '\0' && std::isfinite(v);
}

}  // namespace

result_file_scan scan_result_file(const result_file& file) {
    result_file_scan scan;
    std::ifstream in(file.name);
    if (!in) {
        global_logger().log_io_error("Cannot open the result file " + file.name + " for its final check", module_name,
                                     procedure_at("check_result_files"));
        throw error_stop();
    }
    std::string line, item;
    for (std::int64_t number = 1; std::getline(in, line); ++number) {
        std::istringstream items(line);
        std::string record;
        if (!(items >> record)) continue;
        bool bad = false;
        while (items >> item) bad = bad || !finite_item(item);
        if (!bad) continue;
        const long id = std::strtol(record.c_str(), nullptr, 10);
        if (std::binary_search(file.degenerate_records.begin(), file.degenerate_records.end(),
                               static_cast<std::int32_t>(id))) {
            ++scan.degenerate_nonfinite;
        } else if (scan.bad_line == 0) {
            scan.bad_line = number;
            scan.bad_text = line;
        }
    }
    return scan;
}

std::vector<result_file> run_result_files(const run_outputs& run, const std::vector<std::int32_t>& monomorphic) {
    std::vector<result_file> files{{"qd_pevsnpeffects.dat", {}, {}}};
    if (run.pvalues) {
        const std::string what = "monomorphic SNPs, whose test statistics carry no information";
        for (const char* name : {"qd_zscores_approx.dat", "qd_pvalues_approx.dat", "qd_lr_approx.dat"})
            files.push_back({name, monomorphic, what});
        files.push_back({"qd_varhatsnpeffects_approx.dat", {}, {}});
    }
    if (run.only_geno) files.push_back({"qd_sskreliabilities_geno.dat", {}, {}});
    // Not qd_stats_erc_add.dat: its standard deviation of a single genotyped
    // animal is rightly not a number, and its values reach the reliabilities.
    if (run.all_animals) {
        for (const char* name : {"qd_sskreliabilities.dat", "qd_sskreliabilities_tarnelo.dat"})
            files.push_back({name, {}, {}});
        if (run.weight_files)
            for (const char* name : {"qd_erc_add.dat", "qd_erc_ss.dat"}) files.push_back({name, {}, {}});
    }
    return files;
}

void check_result_files(const std::vector<result_file>& files) {
    auto& log = global_logger();
    for (const result_file& file : files) {
        const result_file_scan scan = scan_result_file(file);
        if (scan.bad_line != 0) {
            log.log_error("The result file " + file.name + " holds a value that is not a finite number on line " +
                              inttochar(scan.bad_line) + ": \"" + scan.bad_text +
                              "\"; the results of this run cannot be used",
                          module_name, procedure_at("check_result_files"));
            throw error_stop();
        }
        if (scan.degenerate_nonfinite > 0)
            log.log_warning(file.name + ": " + inttochar(scan.degenerate_nonfinite) +
                            " records with values that are not finite numbers, kept: " + file.degenerate_what);
    }
}

}  // namespace krel
