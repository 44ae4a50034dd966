#include "app/run_drivers.h"
#include "util/blas_core.h"

int main(int argc, char** argv) {
    // Before anything else: this may start the program again with better BLAS kernels.
    krel::select_blas_core(argv);
    return krel::krel_program(argc, argv);
}
