#include "util/blas_core.h"

#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdlib>
#include <string>

#include <cblas.h>

#include "util/numeric_helpers.h"

namespace krel {

namespace {
constexpr const char* library_core_variable = "KREL_BLAS_LIBRARY_CORE";
constexpr const char* opt_out_variable = "KREL_KEEP_BLAS_CORE";

bool env_set(const char* name) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0';
}
}  // namespace

std::string preferred_blas_core() {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
        __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
        __builtin_cpu_supports("avx512cd"))
        return "SkylakeX";
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return "Haswell";
    if (__builtin_cpu_supports("avx")) return "SandyBridge";
    return {};
}

int blas_core_rank(std::string_view name) {
    struct ranked {
        std::string_view core;
        int rank;
    };
    static constexpr std::array<ranked, 27> cores = {{
        {"unknown", 0},     {"katmai", 0},        {"coppermine", 0},  {"northwood", 0},
        {"prescott", 0},    {"banias", 0},        {"atom", 0},        {"core2", 0},
        {"penryn", 0},      {"dunnington", 0},    {"nehalem", 0},     {"athlon", 0},
        {"opteron", 0},     {"opteron(sse3)", 0}, {"barcelona", 0},   {"nano", 0},
        {"sandybridge", 1}, {"bobcat", 1},        {"bulldozer", 1},   {"piledriver", 1},
        {"haswell", 2},     {"zen", 2},           {"steamroller", 2}, {"excavator", 2},
        {"skylakex", 3},    {"cooperlake", 3},    {"sapphirerapids", 3},
    }};
    const std::string n = to_lower(name);
    for (const ranked& c : cores)
        if (n == c.core) return c.rank;
    return -1;
}

std::string blas_core_in_use() {
    const char* name = openblas_get_corename();
    return name != nullptr ? std::string(trim(name)) : "unknown";
}

std::string blas_core_to_select(std::string_view current, std::string_view preferred,
                                bool user_set_core, bool opted_out) {
    if (user_set_core || opted_out || preferred.empty()) return {};
    const int rank = blas_core_rank(current);
    if (rank < 0 || rank >= blas_core_rank(preferred)) return {};
    return std::string(preferred);
}

void select_blas_core(char** argv) {
    const std::string current = blas_core_in_use();
    const std::string core = blas_core_to_select(current, preferred_blas_core(),
                                                 env_set("OPENBLAS_CORETYPE"),
                                                 env_set(opt_out_variable));
    if (core.empty()) return;
    setenv("OPENBLAS_CORETYPE", core.c_str(), 1);
    setenv(library_core_variable, current.c_str(), 1);
    execv("/proc/self/exe", argv);
    // The program goes on with the library's own choice when it cannot be
    // started again; nothing was changed but the two variables.
    unsetenv("OPENBLAS_CORETYPE");
    unsetenv(library_core_variable);
}

std::string blas_core_report() {
    const std::string in_use = blas_core_in_use();
    const char* library = std::getenv(library_core_variable);
    if (library != nullptr && *library != '\0')
        return "BLAS core in use: " + in_use + " (selected for this CPU; the library chose " +
               std::string(library) + ")";
    if (env_set("OPENBLAS_CORETYPE"))
        return "BLAS core in use: " + in_use + " (set by OPENBLAS_CORETYPE)";
    return "BLAS core in use: " + in_use;
}

}  // namespace krel
