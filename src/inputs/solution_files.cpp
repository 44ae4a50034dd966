#include "inputs/solution_files.h"

#include <cmath>
#include <vector>

#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"
#include "util/run_timer.h"

namespace krel {

namespace {

constexpr const char* module_reverse = "modreverse";
constexpr const char* module_krel = "modkrel";

record_reader open_solutions(const std::string& file, const char* module, const char* routine) {
    record_reader in;
    if (!in.open(file)) {
        global_logger().log_io_error("Cannot open the file " + file, module, procedure_at(routine));
        throw error_stop();
    }
    return in;
}

// Columns of the first record, counted by blanks; 0 for an empty file.
std::int32_t first_record_columns(record_reader& in) {
    std::string_view record;
    std::int32_t columns = 0;
    if (in.next(record)) columns = static_cast<std::int32_t>(pos_words(record).size());
    in.rewind();
    return columns;
}

void require_columns(record_reader& in, std::int32_t wanted, const std::string& file, const char* module,
                     const char* routine) {
    if (first_record_columns(in) == wanted) return;
    global_logger().log_error("The file " + file + " must contain " + inttochar(wanted) + " columns!", module,
                              procedure_at(routine));
    throw error_stop();
}

// A level or trait that the array cannot hold would be written outside it.
void check_place(const dmatrix& array, std::int64_t level, std::int64_t trait, const std::string& file,
                 const char* module, const char* routine) {
    if (level >= 1 && level <= array.rows() && trait >= 1 && trait <= array.cols()) return;
    global_logger().log_error("The file " + file + " holds a value for level " + std::to_string(level) + " and trait " +
                                  std::to_string(trait) + ", outside the " + std::to_string(array.rows()) +
                                  " levels and " + std::to_string(array.cols()) + " traits expected",
                              module, procedure_at(routine));
    throw error_stop();
}

// A NaN or an infinity read as a PEV, a reliability or a SNP effect would
// pass into every result computed from it.
void require_finite(double value, const record_reader& in, std::string_view record, const char* module,
                    const char* routine) {
    if (std::isfinite(value)) return;
    global_logger().log_error("The file " + in.file() + " holds a value that is not a finite number at line " +
                                  std::to_string(in.line_number()) + ": \"" + printable_excerpt(record) + "\"",
                              module, procedure_at(routine));
    throw error_stop();
}

}  // namespace

std::int64_t readsol(const std::string& file, std::int32_t effect, dmatrix& array, bool use_column_4) {
    wtime clock;
    std::int64_t stored = 0;
    record_reader in = open_solutions(file, module_reverse, "readsol");
    require_columns(in, 5, file, module_reverse, "readsol");
    std::string_view record;
    while (in.next(record)) {
        if (blank_record(record)) continue;
        item_cursor items(record);
        std::int64_t trait = 0, eff = 0, level = 0, original = 0;
        std::string_view word;
        double value = 0.0;
        if (!items.next_int(trait) || !items.next_int(eff) || !items.next_int(level) ||
            (use_column_4 ? !items.next_int(original) : !items.next_word(word)) || !items.next_real(value)) {
            warn_reading_stopped(in, record);
            break;
        }
        if (eff != effect) continue;
        if (use_column_4) level = original;
        check_place(array, level, trait, file, module_reverse, "readsol");
        require_finite(value, in, record, module_reverse, "readsol");
        array(level, trait) = value;
        ++stored;
    }
    global_logger().log_message("Elapsed time (s) to read solutions : " + realtochar(clock.elapsed(), "(f0.3)"));
    return stored;
}

void readsol_tarnelo(const std::string& file, dmatrix& array) {
    wtime clock;
    record_reader in = open_solutions(file, module_reverse, "readsol_tarnelo");
    const auto ntrait = static_cast<std::int32_t>(array.cols());
    require_columns(in, 3 + ntrait, file, module_reverse, "readsol_tarnelo");
    std::string_view record;
    std::vector<double> values(ntrait);
    while (in.next(record)) {
        if (blank_record(record)) continue;
        item_cursor items(record);
        std::int64_t level = 0;
        std::string_view unused;
        bool ok = items.next_int(level) && items.next_word(unused) && items.next_word(unused);
        for (double& v : values) ok = ok && items.next_real(v);
        if (!ok) {
            warn_reading_stopped(in, record);
            break;
        }
        check_place(array, level, 1, file, module_reverse, "readsol_tarnelo");
        for (double v : values) require_finite(v, in, record, module_reverse, "readsol_tarnelo");
        for (std::int32_t t = 1; t <= ntrait; ++t) array(level, t) = values[t - 1];
    }
    global_logger().log_message("Elapsed time (s) to read Tarnelo solutions : " +
                                realtochar(clock.elapsed(), "(f0.3)"));
}

void readsol_tarnelo_reg(const std::string& file, std::int32_t effect, dmatrix& array) {
    wtime clock;
    record_reader in = open_solutions(file, module_krel, "readsol_tarnelo_reg");
    require_columns(in, 6, file, module_krel, "readsol_tarnelo_reg");
    std::string_view record;
    in.next(record);  // the header
    while (in.next(record)) {
        if (blank_record(record)) continue;
        item_cursor items(record);
        std::int64_t trait = 0, level = 0, eff = 0;
        std::string_view unused;
        double value = 0.0;
        if (!items.next_int(trait) || !items.next_word(unused) || !items.next_int(level) || !items.next_int(eff) ||
            !items.next_real(value)) {
            warn_reading_stopped(in, record);
            break;
        }
        if (eff != effect) continue;
        require_finite(value, in, record, module_krel, "readsol_tarnelo_reg");
        if (trait > array.cols()) {
            global_logger().log_warning("More traits in the file " + file + " for effect " + inttochar(effect) +
                                            " than allowed traits." + " Additional traits will be ignored.",
                                        module_krel, procedure_at("readsol_tarnelo_reg"));
            break;
        }
        check_place(array, level, trait, file, module_krel, "readsol_tarnelo_reg");
        array(level, trait) = value;
    }
    global_logger().log_message("Elapsed time (s) to read solutions : " + realtochar(clock.elapsed(), "(f0.3)"));
}

}  // namespace krel
