#pragma once
// A slice of a larger array: the values of positions lower..upper only, so a
// thread or a block works on its share without holding the whole.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace krel {

struct partarray_type {
    std::int32_t lower = 1;
    std::int32_t upper = 0;  // upper < lower: an empty slice
    std::vector<double> array;

    void initbounds_scal(std::int32_t lower_bound, std::int32_t upper_bound);
    // Allocates lower..upper and sets every value to zero.
    void initarray_scal();
    // Size of the values in mebibytes, as given by the bounds.
    double memory() const;
    // Number of positions between the bounds.
    std::size_t size() const;

    // Indexed lower..upper, as the positions of the whole array.
    double& operator()(std::int32_t i) { return array[offset(i)]; }
    const double& operator()(std::int32_t i) const { return array[offset(i)]; }

private:
    std::size_t offset(std::int32_t i) const;
};

}  // namespace krel
