#include "inputs/level_list.h"

#include <string_view>

#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"

namespace krel {

std::vector<std::int32_t> read_level_list(const std::string& file, std::int32_t maxlevel, const char* module,
                                          const char* routine) {
    auto& log = global_logger();
    record_reader in;
    if (!in.open(file)) {
        log.log_io_error("Cannot open the file " + file, module, procedure_at(routine));
        throw error_stop();
    }
    std::vector<std::int32_t> levels;
    std::string_view record;
    while (in.next(record)) {
        if (blank_record(record)) continue;
        item_cursor items(record);
        std::int32_t id = 0;
        if (!items.next_int(id)) {
            warn_reading_stopped(in, record);
            break;
        }
        if (id < 1 || id > maxlevel) {
            log.log_error("The file " + file + " names level " + inttochar(id) + ", outside the pedigree (1 to " +
                              inttochar(maxlevel) + ")",
                          module, procedure_at(routine));
            throw error_stop();
        }
        levels.push_back(id);
    }
    return levels;
}

}  // namespace krel
