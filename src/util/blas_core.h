#pragma once
// Choice of the BLAS kernels. Debian's OpenBLAS picks its kernels when it is
// loaded and falls back to a generic core on processors newer than itself;
// the better kernels it carries can only be chosen through OPENBLAS_CORETYPE
// before the library initialises, so the program re-executes itself once with
// the variable set. KREL_KEEP_BLAS_CORE=1 (or a user's own OPENBLAS_CORETYPE)
// keeps the library's own choice.
#include <string>
#include <string_view>

namespace krel {

// The core that the processor's features call for ("SkylakeX", "Haswell",
// "SandyBridge"), or an empty text when none of these applies.
std::string preferred_blas_core();

// Rank of a core name: 0 generic, 1 AVX, 2 AVX2, 3 AVX-512; -1 unknown names.
int blas_core_rank(std::string_view name);

// The core to start the library with, or an empty text to keep its choice:
// the preferred core when the library runs a weaker one that it knows, and
// neither the user's OPENBLAS_CORETYPE nor the opt-out is set.
std::string blas_core_to_select(std::string_view current, std::string_view preferred,
                                bool user_set_core, bool opted_out);

// The core that the library is running on now.
std::string blas_core_in_use();

// Re-executes the program with the preferred core when the library chose a
// weaker one and nothing opts out. Returns only when no re-execution happened
// (or it failed). Call it first thing in main.
void select_blas_core(char** argv);

// One line naming the core in use and how it was chosen.
std::string blas_core_report();

}  // namespace krel
