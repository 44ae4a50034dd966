#include "sparse/sparse_stream_io.h"

#include <cstdio>
#include <iostream>

#include "util/error_stop.h"

namespace krel {

void sparse_stop(std::ostream& unit, std::string_view message) {
    unit << message << '\n';
    unit.flush();
    throw error_stop();
}

std::string unit_name(const std::ostream* unit) {
    if (unit == nullptr || unit == &std::cout) return "6";
    if (unit == &std::cerr) return "0";
    char text[32];
    std::snprintf(text, sizeof text, "%p", static_cast<const void*>(unit));
    return text;
}

std::ofstream open_for_writing(const std::string& file, std::ostream& unit) {
    std::ofstream out(file, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!out) sparse_stop(unit, " ERROR: the file " + file + " cannot be opened");
    return out;
}

binary_writer::binary_writer(const std::string& file, std::ostream& unit)
    : file_(file), unit_(unit), out_(open_for_writing(file, unit)) {}

void binary_writer::close() {
    out_.close();
    if (!out_) sparse_stop(unit_, " ERROR: the file " + file_ + " cannot be written");
}

binary_reader::binary_reader(const std::string& file, std::string_view refusal)
    : refusal_(refusal), in_(file, std::ios::in | std::ios::binary) {
    if (!in_) sparse_stop(std::cout, " ERROR: the file " + file + " cannot be opened");
    in_.seekg(0, std::ios::end);
    size_ = static_cast<std::int64_t>(in_.tellg());
    in_.seekg(0, std::ios::beg);
    if (size_ < 0 || !in_) refuse();
}

void binary_reader::require(std::int64_t count, std::int64_t size) {
    if (count < 0 || (size > 0 && count > remaining() / size)) refuse();
}

void binary_reader::refuse() const { sparse_stop(std::cout, refusal_); }

void binary_reader::read(void* data, std::size_t bytes) {
    if (static_cast<std::int64_t>(bytes) > remaining()) refuse();
    in_.read(static_cast<char*>(data), static_cast<std::streamsize>(bytes));
    if (!in_) refuse();
    position_ += static_cast<std::int64_t>(bytes);
}

}  // namespace krel
