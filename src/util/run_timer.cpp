#include "util/run_timer.h"

#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "util/fortran_format.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"

namespace krel {

void vmstat(std::ostream& unit, const std::string& status_file) {
    std::error_code ec;
    if (!std::filesystem::exists(status_file, ec)) return;
    std::ifstream in(status_file);
    if (!in) return;
    static const std::array<std::string_view, 7> keys = {"VmPeak", "VmSize", "VmHWM:", "VmRSS:",
                                                          "VmData", "VmStk:", "VmSwap"};
    std::string report = "\n";
    std::string line;
    while (std::getline(in, line)) {
        if (line.size() > 1000) line.resize(1000);
        const std::string_view head = std::string_view(line).substr(0, 6);
        for (auto key : keys) {
            if (head == key) {
                report += trim(line);
                report += '\n';
                break;
            }
        }
    }
    unit << report << '\n';
    unit.flush();
}

void vmstat() { vmstat(std::cout, "/proc/" + std::to_string(getpid()) + "/status"); }

void wtime::start(std::string_view message) {
    start_ = std::chrono::steady_clock::now();
    if (message.find_first_not_of(' ') != std::string_view::npos)
        global_logger().log_message(message);
}

double wtime::elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void wtime::stop(std::string_view message) const {
    std::string text(trim(message));
    text += " - Wall clock time (s): ";
    text += realtochar(elapsed(), "(f0.3)");
    global_logger().log_message(text);
}

}  // namespace krel
