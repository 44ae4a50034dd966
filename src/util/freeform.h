#pragma once
// Free-form (list-directed) reading of text files: blanks, tabs or commas
// separate the items of a record, a slash ends the record's items, and what
// follows the last item wanted is ignored. A record that lacks an item, or
// holds one that does not read as the wanted kind, is a failed read.
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

namespace krel {

// Fortran list-directed reading of one value: the first item of the text
// (items end at a blank, comma or slash) must be a whole integer or real.
bool read_integer_list_directed(std::string_view text, std::int32_t& value);
bool read_real_list_directed(std::string_view text, double& value);

// Items of one record, consumed from the left.
class item_cursor {
public:
    explicit item_cursor(std::string_view record) : rest_(record) {}
    // The next item as text; false when the record has no further item.
    bool next_word(std::string_view& word);
    bool next_int(std::int64_t& value);
    bool next_int(std::int32_t& value);
    // Reals as Fortran reads them: exponents with e, d or q, or a bare sign.
    bool next_real(double& value);
    bool at_end();

private:
    std::string_view rest_;
    bool ended_ = false;  // a slash was met
};

// Integer item from [p, end): optional sign, digits, then a separator or
// the end. Advances p past the item and its separator. The fast path of
// large files; the same rules as item_cursor::next_int.
inline bool parse_int_item(const char*& p, const char* end, std::int64_t& value) {
    while (p < end && (*p == ' ' || *p == '\t' || *p == '\r')) ++p;
    if (p < end && *p == ',') {
        ++p;
        while (p < end && (*p == ' ' || *p == '\t' || *p == '\r')) ++p;
    }
    if (p >= end || *p == '\n' || *p == '/') return false;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    const char* first = p;
    std::uint64_t v = 0;
    while (p < end && static_cast<unsigned>(*p - '0') < 10u) {
        v = v * 10 + static_cast<unsigned>(*p - '0');
        ++p;
        if (p - first > 18) return false;
    }
    if (p == first) return false;
    if (p < end && !(*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n' || *p == ',' || *p == '/')) return false;
    if (p < end && *p == ',') ++p;
    value = negative ? -static_cast<std::int64_t>(v) : static_cast<std::int64_t>(v);
    return true;
}

// Records of a text file, one line each (a final line without line feed
// counts; a carriage return before the line feed is dropped).
class record_reader {
public:
    record_reader() = default;
    explicit record_reader(const std::string& file) { open(file); }
    bool open(const std::string& file);
    bool is_open() const { return in_.is_open(); }
    bool next(std::string_view& record);
    void rewind();
    const std::string& file() const { return file_; }

private:
    std::string file_;
    std::ifstream in_;
    std::string line_;
};

// Splits text into up to `parts` pieces that end at line ends, so that
// threads can parse whole records; piece k is [bounds[k], bounds[k+1]).
// Returns the number of pieces.
std::size_t split_at_lines(std::string_view text, std::size_t parts, std::size_t* bounds);

// Whether a record holds nothing but blanks.
bool blank_record(std::string_view record);

}  // namespace krel
