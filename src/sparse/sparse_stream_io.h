#pragma once
// Message and file helpers shared by the sparse matrix classes: the error
// stop on a matrix's own unit, logical and unit texts, and the binary stream
// files of save and load (little-endian values as the machine writes them,
// no record marks).
#include <cstdint>
#include <fstream>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace krel {

// Writes the message as one line on unit and stops the run.
[[noreturn]] void sparse_stop(std::ostream& unit, std::string_view message);

// "T" or "F".
inline const char* logical(bool flag) { return flag ? "T" : "F"; }

// The text of a unit in print_dim: the classic unit numbers 6 for standard
// output (also for null) and 0 for standard error; another stream shows its
// address.
std::string unit_name(const std::ostream* unit);

// Opens the file for writing, replacing an old one; a failure stops with a
// message on unit.
std::ofstream open_for_writing(const std::string& file, std::ostream& unit);

// Binary stream output.
class binary_writer {
public:
    binary_writer(const std::string& file, std::ostream& unit);
    template <class T>
    void put(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        out_.write(reinterpret_cast<const char*>(&value), sizeof(T));
    }
    template <class T>
    void put(std::span<const T> values) {
        static_assert(std::is_trivially_copyable_v<T>);
        out_.write(reinterpret_cast<const char*>(values.data()),
                   static_cast<std::streamsize>(values.size_bytes()));
    }
    // Flushes and closes; a failed write stops with a message on the unit.
    void close();

private:
    std::string file_;
    std::ostream& unit_;
    std::ofstream out_;
};

// Binary stream input. Every read is checked against what is left in the
// file, so that a short or damaged file ends in refuse() and never in a
// huge allocation.
class binary_reader {
public:
    // refusal: the line written (on standard output) for a file that is not
    // of the expected kind.
    binary_reader(const std::string& file, std::string_view refusal);
    template <class T>
    T get() {
        static_assert(std::is_trivially_copyable_v<T>);
        T value{};
        read(&value, sizeof(T));
        return value;
    }
    template <class T>
    void get(std::span<T> values) {
        static_assert(std::is_trivially_copyable_v<T>);
        read(values.data(), values.size_bytes());
    }
    // Bytes not yet read.
    std::int64_t remaining() const { return size_ - position_; }
    // Refuses the file unless count more values of size bytes are left.
    void require(std::int64_t count, std::int64_t size);
    [[noreturn]] void refuse() const;

private:
    void read(void* data, std::size_t bytes);

    std::string refusal_;
    std::ifstream in_;
    std::int64_t size_ = 0;
    std::int64_t position_ = 0;
};

}  // namespace krel
