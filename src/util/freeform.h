#pragma once
// Free-form (list-directed) reading of text files: blanks, tabs or commas
// separate the items of a record, a slash ends the record's items, and what
// follows the last item wanted is ignored. A record that lacks an item, or
// holds one that does not read as the wanted kind, is a failed read.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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

// Spreadsheet programs start the text files they export with a UTF-8
// byte-order mark, which is no part of the first value. Removes it from the
// start of a file's first line; true when there was one.
bool skip_utf8_bom(std::string& line);
bool skip_utf8_bom(std::string_view& line);

// A record as it may stand in a message: at most `width` characters, bytes
// that do not print shown as \xNN.
std::string printable_excerpt(std::string_view record, std::size_t width = 60);

class line_reader;

// Records of a text file, one line each (a final line without line feed
// counts; a carriage return before the line feed is dropped, and a carriage
// return alone ends a line, as old Mac files have it). A byte-order mark at
// the start of the file is skipped.
class record_reader {
public:
    record_reader();
    explicit record_reader(const std::string& file);
    ~record_reader();
    record_reader(record_reader&&) noexcept;
    record_reader& operator=(record_reader&&) noexcept;
    bool open(const std::string& file);
    bool is_open() const;
    bool next(std::string_view& record);
    void rewind();
    const std::string& file() const { return file_; }
    // Number of the line that the last record came from (1 for the first).
    std::int64_t line_number() const { return line_number_; }

private:
    std::string file_;
    std::unique_ptr<line_reader> in_;
    std::string line_;
    std::size_t next_ = 0;  // start of the next record in line_ when more_ is set
    bool more_ = false;     // line_ holds a further record behind a carriage return
    std::int64_t line_number_ = 0;
};

// Reading that ends at a record which does not read as the file's format
// (the rule of free-form files) loses everything behind it: the warning
// names the file, the line and its text, so that a damaged file is not
// taken silently for a short one.
void warn_reading_stopped(const record_reader& in, std::string_view record);

// Splits text into up to `parts` pieces that end at line ends, so that
// threads can parse whole records; piece k is [bounds[k], bounds[k+1]).
// Returns the number of pieces.
std::size_t split_at_lines(std::string_view text, std::size_t parts, std::size_t* bounds);

// Whether a record holds nothing but blanks.
bool blank_record(std::string_view record);

// Items of a record as views, and a fast buffered line reader.


// Whether c separates values on a free-form record. A carriage return counts
// as a blank so that files written on Windows read the same.
constexpr bool is_separator(char c) noexcept {
    return c == ' ' || c == ',' || c == '\t' || c == '\r';
}

// Whether c is a blank where the readers count fields by blank-to-non-blank
// transitions; commas are part of a field there.
constexpr bool is_blank(char c) noexcept { return c == ' ' || c == '\t' || c == '\r'; }

// The values of one record, in order, as views into the line.
void split_items(std::string_view line, std::vector<std::string_view>& items);
// The first value of a record, empty when the record holds none.
std::string_view first_item(std::string_view line);

// An integer value: an optional sign and decimal digits, nothing else.
bool parse_integer(std::string_view item, std::int64_t& value);
bool parse_integer(std::string_view item, std::int32_t& value);
// A real value: a decimal number with an optional exponent marked by e, E, d
// or D, or an infinity or not-a-number as written by the C library.
bool parse_real(std::string_view item, double& value);

// Sequential, buffered reading of the lines of a text file. A line is given
// without its line end; the last line needs none. A byte-order mark at the
// start of the file is dropped (see skip_utf8_bom).
class line_reader {
public:
    explicit line_reader(const std::string& file);
    ~line_reader();
    line_reader(const line_reader&) = delete;
    line_reader& operator=(const line_reader&) = delete;

    bool is_open() const noexcept { return f_ != nullptr; }
    // The next line; false at the end of the file or on a read error.
    bool next(std::string& line);
    // The next line that holds a value, as a free-form read looks for one.
    bool next_record(std::string& line);
    // Back to the start of the file.
    void rewind();
    // Number of lines handed out since the start.
    std::int64_t line_number() const noexcept { return line_number_; }

private:
    bool fill();

    std::FILE* f_ = nullptr;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    bool eof_ = false;
    std::int64_t line_number_ = 0;
};

bool file_exists(const std::string& file);

}  // namespace krel
