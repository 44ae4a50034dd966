#pragma once
// Storage for the hash table of coosparse. The table is created zero and then
// written at random, one key here and the next one megabytes away. Two
// things matter at the sizes of a run:
//  - zeroing: a large block from calloc comes straight from the kernel,
//    already zero, and is not written a second time by the program;
//  - the TLB: with 4 KiB pages nearly every access of a large table also
//    misses the TLB, so the block is offered to the kernel for transparent
//    huge pages before its first touch.
#include <sys/mman.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

namespace krel {

template <class T>
class zeroed_array {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    zeroed_array() noexcept = default;
    // n elements, all zero.
    explicit zeroed_array(std::size_t n) : size_(n) {
        if (n == 0) return;
        data_ = static_cast<T*>(std::calloc(n, sizeof(T)));
        if (data_ == nullptr) throw std::bad_alloc();
        advise_huge_pages();
    }
    zeroed_array(const zeroed_array& other) : zeroed_array(other.size_) {
        if (size_ != 0) std::memcpy(data_, other.data_, size_ * sizeof(T));
    }
    zeroed_array(zeroed_array&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    zeroed_array& operator=(const zeroed_array& other) {
        if (this != &other) *this = zeroed_array(other);
        return *this;
    }
    zeroed_array& operator=(zeroed_array&& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~zeroed_array() { std::free(data_); }

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    T* data() noexcept { return data_; }
    const T* data() const noexcept { return data_; }
    T& operator[](std::size_t k) noexcept {
        assert(k < size_);
        return data_[k];
    }
    const T& operator[](std::size_t k) const noexcept {
        assert(k < size_);
        return data_[k];
    }
    T& front() noexcept { return data_[0]; }
    const T& front() const noexcept { return data_[0]; }
    T& back() noexcept { return data_[size_ - 1]; }
    const T& back() const noexcept { return data_[size_ - 1]; }
    T* begin() noexcept { return data_; }
    T* end() noexcept { return data_ + size_; }
    const T* begin() const noexcept { return data_; }
    const T* end() const noexcept { return data_ + size_; }
    operator std::span<T>() noexcept { return {data_, size_}; }
    operator std::span<const T>() const noexcept { return {data_, size_}; }

private:
    // The whole 2 MiB pages inside the block; advice only, so a kernel
    // without transparent huge pages changes nothing.
    void advise_huge_pages() noexcept {
        constexpr std::uintptr_t huge = std::uintptr_t{2} << 20;
        const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(data_);
        const std::uintptr_t last = first + size_ * sizeof(T);
        const std::uintptr_t lo = (first + huge - 1) / huge * huge;
        const std::uintptr_t hi = last / huge * huge;
        if (hi > lo) madvise(reinterpret_cast<void*>(lo), hi - lo, MADV_HUGEPAGE);
    }

    T* data_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace krel
