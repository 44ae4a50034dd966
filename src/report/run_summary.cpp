#include "report/run_summary.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>

#include "report/json_writer.h"
#include "util/logger.h"

namespace krel {

reliability_summary summarise_reliabilities(std::span<const double> values, double floor) {
    reliability_summary s;
    double sum = 0.0;
    s.min = std::numeric_limits<double>::infinity();
    s.max = -std::numeric_limits<double>::infinity();
    for (const double v : values) {
        if (!std::isfinite(v)) {
            ++s.non_finite;
            continue;
        }
        ++s.count;
        sum += v;
        s.min = std::min(s.min, v);
        s.max = std::max(s.max, v);
        if (v < 0.0) ++s.negative;
        if (v == floor) ++s.floored;
    }
    if (s.count == 0) {
        s.min = s.max = s.mean = std::numeric_limits<double>::quiet_NaN();
    } else {
        s.mean = sum / static_cast<double>(s.count);
    }
    return s;
}

std::int64_t run_record::peak_resident_kib() {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6));
    return -1;
}

std::vector<std::string> files_written_since(std::filesystem::file_time_type start) {
    namespace fs = std::filesystem;
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(fs::current_path(), ec)) {
        const std::string name = entry.path().filename().string();
        const bool ours = name.rfind("qd_", 0) == 0 || name.rfind("krel_", 0) == 0 || name == "log_krel.dat" ||
                          name == "OK_KREL";
        std::error_code e2;
        if (ours && entry.is_regular_file(e2) && entry.last_write_time(e2) >= start) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

namespace {

void write_count(json_writer& j, const char* name, std::int64_t v) {
    j.key(name);
    if (v < 0)
        j.null();
    else
        j.value(v);
}

void write_group(json_writer& j, const reliability_summary& s) {
    j.begin_object();
    j.field("count", s.count);
    j.field("mean", s.mean);
    j.field("min", s.min);
    j.field("max", s.max);
    j.field("floored", s.floored);
    j.field("negative", s.negative);
    j.field("non_finite", s.non_finite);
    j.end_object();
}

void write_strings(json_writer& j, const char* name, const std::vector<std::string>& list) {
    j.key(name);
    j.begin_array();
    for (const auto& s : list) j.value(s);
    j.end_array();
}

}  // namespace

void write_run_summary(const std::string& file, const run_record& r) {
    json_writer j;
    j.begin_object();
    j.field("program", r.program);
    j.field("version", r.version);
    j.field("commit", r.commit);
    j.key("command");
    if (r.command.empty())
        j.null();
    else
        j.value(r.command);
    write_strings(j, "arguments", r.arguments);
    j.key("options");
    j.begin_object();
    for (const auto& [name, value] : r.options) {
        j.key(name);
        j.value(value);
    }
    j.end_object();
    j.key("inputs");
    j.begin_object();
    write_count(j, "animals", r.animals);
    write_count(j, "genotyped", r.genotyped);
    write_count(j, "snps", r.snps);
    write_count(j, "traits", r.traits);
    j.end_object();
    write_strings(j, "road", r.road);
    j.key("steps");
    j.begin_array();
    for (const run_step& s : r.steps) {
        j.begin_object();
        j.field("name", s.name);
        j.field("wall_seconds", s.wall_seconds);
        write_count(j, "peak_rss_kib", s.peak_rss_kib);
        j.end_object();
    }
    j.end_array();
    j.key("reliabilities");
    j.begin_array();
    for (const trait_reliabilities& t : r.reliabilities) {
        j.begin_object();
        j.field("trait", static_cast<std::int64_t>(t.trait));
        j.key("genotyped");
        write_group(j, t.genotyped);
        j.key("non_genotyped");
        if (t.has_non_genotyped)
            write_group(j, t.non_genotyped);
        else
            j.null();
        j.end_object();
    }
    j.end_array();
    j.key("snp_tests");
    if (r.sumstats_files.empty()) {
        j.null();
    } else {
        j.begin_object();
        write_strings(j, "files", r.sumstats_files);
        write_count(j, "snps_without_information", r.snps_without_information);
        j.key("inflation_lambda");
        j.begin_array();
        for (const double l : r.inflation) j.value(l);
        j.end_array();
        j.end_object();
    }
    write_strings(j, "result_files", r.result_files);
    j.field("exit_status", static_cast<std::int64_t>(r.exit_status));
    j.key("error");
    if (r.exit_status == 0)
        j.null();
    else
        j.value(r.error);
    j.end_object();

    std::ofstream out(file);
    out << j.text();
    out.close();
    if (!out) global_logger().log_warning("Cannot write the run summary " + file);
}

}  // namespace krel
