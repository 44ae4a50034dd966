#include "app/run_header.h"

#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cblas.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>

#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"

namespace krel {

namespace {
double starttime = 0.0;

const std::string banner_rule(82, '*');
const std::string banner_indent = "\n" + std::string(14, ' ');

std::string host_name() {
    char buffer[66] = {};
    if (gethostname(buffer, 65) != 0) return {};
    buffer[65] = '\0';
    return std::string(trim(buffer));
}
}  // namespace

std::string marker_file(std::string_view name) { return "OK_" + std::string(trim(name)); }

void run_script(const std::string& name) {
    std::error_code ec;
    if (!std::filesystem::exists(name, ec)) return;
    std::ifstream in(name);
    if (!in) return;
    std::string line;
    while (std::getline(in, line)) {
        if (line.size() > 1000) line.resize(1000);
        const std::string command(trim(line));
        global_logger().log_information(" Will perform: " + command);
        std::fflush(nullptr);
        const int raw = std::system(command.c_str());
        int status = raw;
        if (raw != -1 && WIFEXITED(raw)) status = WEXITSTATUS(raw);
        else if (raw != -1 && WIFSIGNALED(raw)) status = 128 + WTERMSIG(raw);
        if (status != 0) {
            global_logger().log_error("Non-zero exit code");
            throw error_stop(status);
        }
    }
}

void write_nameprog(std::string_view name) {
    const std::string trimmed(trim(name));
    const int len = static_cast<int>(trimmed.size());
    const int p = (78 - len) / 2;
    const std::string pad(static_cast<std::size_t>(std::max(p + 1, 0)), ' ');
    const std::string box = "\n" + pad + std::string(static_cast<std::size_t>(len + 4), '*');
    auto& log = global_logger();
    log.log_message(box);
    log.log_message("\n" + pad + "* " + trimmed + " *");
    log.log_message(box);
}

void write_time(std::string_view prefix) {
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    global_logger().log_message(fmt::format("{}{:02}-{:02}-{:04} at {:02}h {:02}m {:02}s", prefix,
                                            tm.tm_mday, tm.tm_mon + 1, tm.tm_year + 1900,
                                            tm.tm_hour, tm.tm_min, tm.tm_sec));
}

void header(std::string_view name, std::string_view version, std::string_view commit) {
    starttime = omp_get_wtime();
    auto& log = global_logger();
    log.configure(false, false, std::nullopt, 82, false);
    log.log_message(banner_rule);
    write_nameprog(name);
    log.log_message(banner_indent + "Compiler: GCC version " + __VERSION__);
    log.log_message(banner_indent + "Compiled on " + __DATE__ + " at " + __TIME__);
    if (!version.empty()) log.log_message(banner_indent + "Version: " + std::string(trim(version)));
    if (!commit.empty()) log.log_message(banner_indent + "Commit : " + std::string(trim(commit)));
    log.log_message(banner_indent + "Compiled for AMD CPUs");
    log.log_message(banner_indent + "Host   : " + host_name());
#pragma omp parallel
    {
#pragma omp single
        log.log_message(banner_indent + "Number of threads for OpenMP: " +
                        inttochar(static_cast<std::int32_t>(omp_get_num_threads())));
    }
    log.log_message(banner_indent + "Number of threads for MKL   : " +
                    inttochar(static_cast<std::int32_t>(openblas_get_num_threads())));
    log.log_message("");
    write_time("Start on ");
    log.log_message("");
    log.log_message(banner_rule);
    log.log_message("");
    log.configure(std::nullopt, true);
    std::error_code ec;
    std::filesystem::remove(marker_file(name), ec);
}

void endheader(std::string_view name, bool completed) {
    auto& log = global_logger();
    log.configure(std::nullopt, false);
    log.log_message(banner_rule);
    write_nameprog(name);
    log.log_message("");
    write_time(banner_indent + "End on ");
    log.log_message(banner_indent + "Elapsed time (s): " +
                    realtochar(omp_get_wtime() - starttime, "(f0.2)"));
    log.log_message("");
    log.log_message(banner_rule);
    if (completed) std::ofstream marker(marker_file(name), std::ios::out | std::ios::trunc);
}

}  // namespace krel
