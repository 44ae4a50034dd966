#pragma once
// The reliability engine: one krel_type object per run, owned by the run driver.

namespace krel {

// Additional output (to standard output and files), set from --verbose.
inline bool lkrel_verbose = false;

// The engine object. Its operations (reading the inputs, the genotyped and
// non-genotyped steps, p-values and result files) are members of this class.
class krel_type {
public:
    krel_type() = default;
    krel_type(const krel_type&) = delete;
    krel_type& operator=(const krel_type&) = delete;
};

}  // namespace krel
