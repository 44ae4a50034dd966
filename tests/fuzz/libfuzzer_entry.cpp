// libFuzzer entry of one reader; the target is chosen when this file is compiled.
#include <cstdio>
#include <cstdlib>
#include "reader_targets.h"

#ifndef KREL_FUZZ_TARGET
#error "KREL_FUZZ_TARGET names the reader to fuzz"
#endif

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    krel::fuzz::enter_scratch_directory();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const krel::fuzz::reader_target* target = [] {
        const auto* t = krel::fuzz::find_reader_target(KREL_FUZZ_TARGET);
        if (t == nullptr) {
            std::fprintf(stderr, "no reader target named %s\n", KREL_FUZZ_TARGET);
            std::abort();
        }
        return t;
    }();
    target->run({data, size});
    return 0;
}
