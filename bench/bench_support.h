#pragma once
// Helpers that several benchmarks share: the resident set from
// /proc/self/status and the best of repeated timings.
#include <fstream>
#include <optional>
#include <string>

namespace krel::bench {

// A field of /proc/self/status in KiB (VmRSS, VmHWM); 0 when absent.
inline long status_kib(const std::string& field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
    return 0;
}

inline long resident_kib() { return status_kib("VmRSS"); }

// Sets the peak of the resident set (VmHWM) back to the present resident set.
inline void reset_peak() { std::ofstream("/proc/self/clear_refs") << "5"; }

// Peak resident set in MiB since the last reset_peak.
inline double peak_mib() { return static_cast<double>(status_kib("VmHWM")) / 1024.0; }

// The growth of the resident set's peak over a baseline while a phase runs:
// by default the resident set at the start of the phase.
class peak_memory {
public:
    explicit peak_memory(std::optional<long> baseline_kib = std::nullopt) {
        reset_peak();
        baseline_ = baseline_kib.value_or(resident_kib());
    }
    double mib() const { return static_cast<double>(status_kib("VmHWM") - baseline_) / 1024.0; }

private:
    long baseline_ = 0;
};

// Keeps the smallest positive value seen; 0 means none yet.
inline void keep_min(double& best, double value) {
    if (best == 0.0 || value < best) best = value;
}

}  // namespace krel::bench
