#pragma once
// Zeroed memory for large arrays. Blocks of 2 MiB and more are anonymous
// mappings aligned to and advised for huge pages: arrays that are walked
// across their columns, such as the packed genotypes, otherwise miss in the
// address translation on nearly every step, and filling a fresh array costs
// one page fault per 2 MiB instead of per 4 KiB.
#include <cstddef>

namespace krel {

class large_buffer {
public:
    large_buffer() noexcept = default;
    // Throws std::bad_alloc when the memory is not there.
    explicit large_buffer(std::size_t bytes);
    ~large_buffer();
    large_buffer(large_buffer&& other) noexcept;
    large_buffer& operator=(large_buffer&& other) noexcept;
    large_buffer(const large_buffer&) = delete;
    large_buffer& operator=(const large_buffer&) = delete;

    void* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }

private:
    void release() noexcept;

    void* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t mapped_ = 0;  // length of the mapping, 0 for heap memory
};

}  // namespace krel
