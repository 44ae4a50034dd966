#pragma once
// A whole file mapped read-only into memory: large text files are parsed in
// place, by several threads, without a copy.
#include <cstddef>
#include <string>
#include <string_view>

namespace krel {

class mapped_file {
public:
    mapped_file() = default;
    ~mapped_file();
    mapped_file(const mapped_file&) = delete;
    mapped_file& operator=(const mapped_file&) = delete;

    // False when the file cannot be opened or mapped (errno tells why).
    bool open(const std::string& file);
    std::string_view text() const { return {data_, size_}; }

private:
    void close();
    const char* data_ = nullptr;
    std::size_t size_ = 0;
    void* map_ = nullptr;
};

// Splits text into up to `parts` pieces that end at line ends; piece k is
// [bounds[k], bounds[k+1]).
std::size_t split_at_lines(std::string_view text, std::size_t parts, std::size_t* bounds);

}  // namespace krel
