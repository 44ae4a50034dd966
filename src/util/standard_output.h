#pragma once
// Standard output, for headers that keep a stream pointer whose default is
// standard output and need not pull <iostream> into their users for it.
#include <iosfwd>

namespace krel {

std::ostream& standard_output();

}  // namespace krel
