#include "util/standard_output.h"

#include <iostream>

namespace krel {

std::ostream& standard_output() { return std::cout; }

}  // namespace krel
