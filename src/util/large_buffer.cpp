#include "util/large_buffer.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

namespace krel {

namespace {
constexpr std::size_t huge_page = std::size_t{2} << 20;
}  // namespace

large_buffer::large_buffer(std::size_t bytes) : size_(bytes) {
    if (bytes < huge_page) {
        data_ = std::calloc(bytes > 0 ? bytes : 1, 1);
        if (!data_) throw std::bad_alloc();
        return;
    }
    // Over-allocate by one huge page and trim both ends to an aligned block.
    const std::size_t len = (bytes + huge_page - 1) / huge_page * huge_page;
    void* raw = ::mmap(nullptr, len + huge_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) throw std::bad_alloc();
    const auto base = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t aligned = (base + huge_page - 1) / huge_page * huge_page;
    if (aligned > base) ::munmap(raw, aligned - base);
    const std::uintptr_t end = base + len + huge_page;
    if (end > aligned + len) ::munmap(reinterpret_cast<void*>(aligned + len), end - (aligned + len));
    ::madvise(reinterpret_cast<void*>(aligned), len, MADV_HUGEPAGE);
    data_ = reinterpret_cast<void*>(aligned);
    mapped_ = len;
}

large_buffer::~large_buffer() { release(); }

large_buffer::large_buffer(large_buffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      mapped_(std::exchange(other.mapped_, 0)) {}

large_buffer& large_buffer::operator=(large_buffer&& other) noexcept {
    if (this != &other) {
        release();
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
        mapped_ = std::exchange(other.mapped_, 0);
    }
    return *this;
}

void large_buffer::release() noexcept {
    if (mapped_)
        ::munmap(data_, mapped_);
    else
        std::free(data_);
    data_ = nullptr;
    size_ = mapped_ = 0;
}

}  // namespace krel
