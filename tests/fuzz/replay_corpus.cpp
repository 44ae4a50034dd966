// Replays stored inputs through one reader target, without libFuzzer, so that
// any compiler's sanitizer build can check the corpora.
//   krel-fuzz-replay TARGET FILE_OR_DIRECTORY...
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "reader_targets.h"

namespace {

// Seconds one input may take; the readers are linear, so this only trips on a hang.
constexpr unsigned time_limit_seconds = 20;
const char* current_input = "";

void on_timeout(int) {
    const char text[] = "krel-fuzz-replay: time limit exceeded on ";
    [[maybe_unused]] auto w1 = write(STDERR_FILENO, text, sizeof text - 1);
    [[maybe_unused]] auto w2 = write(STDERR_FILENO, current_input, std::strlen(current_input));
    [[maybe_unused]] auto w3 = write(STDERR_FILENO, "\n", 1);
    _exit(3);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s TARGET FILE_OR_DIRECTORY...\n", argv[0]);
        return 2;
    }
    const auto* target = krel::fuzz::find_reader_target(argv[1]);
    if (target == nullptr) {
        std::fprintf(stderr, "no reader target named %s\n", argv[1]);
        return 2;
    }
    std::vector<std::filesystem::path> inputs;
    for (int a = 2; a < argc; ++a) {
        const std::filesystem::path p = std::filesystem::absolute(argv[a]);
        if (std::filesystem::is_directory(p)) {
            for (const auto& e : std::filesystem::directory_iterator(p))
                if (e.is_regular_file()) inputs.push_back(e.path());
        } else {
            inputs.push_back(p);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    krel::fuzz::enter_scratch_directory();
    signal(SIGALRM, on_timeout);
    for (const auto& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const std::string name = path.string();
        current_input = name.c_str();
        std::printf("%s (%zu bytes)\n", name.c_str(), bytes.size());
        std::fflush(stdout);
        alarm(time_limit_seconds);
        try {
            target->run(bytes);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s escaped the reader on %s: %s\n", target->name.data(), name.c_str(), e.what());
            return 1;
        }
        alarm(0);
    }
    std::printf("%zu inputs replayed through %s\n", inputs.size(), argv[1]);
    return 0;
}
