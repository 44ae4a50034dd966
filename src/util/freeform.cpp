#include "util/freeform.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <limits>
#include <string>

#include "util/logger.h"
#include "util/numeric_helpers.h"

namespace krel {

namespace {

std::string_view first_list_item(std::string_view text) {
    const auto b = text.find_first_not_of(" \t");
    if (b == std::string_view::npos) return {};
    text = text.substr(b);
    const auto e = text.find_first_of(" \t,/");
    return e == std::string_view::npos ? text : text.substr(0, e);
}

}  // namespace

bool read_integer_list_directed(std::string_view text, std::int32_t& value) {
    std::string_view item = first_list_item(text);
    if (item.starts_with('+')) item.remove_prefix(1);
    if (item.empty()) return false;
    std::int32_t v = 0;
    const auto [ptr, ec] = std::from_chars(item.data(), item.data() + item.size(), v);
    if (ec != std::errc() || ptr != item.data() + item.size()) return false;
    value = v;
    return true;
}

bool read_real_list_directed(std::string_view text, double& value) {
    std::string_view item = first_list_item(text);
    if (item.empty()) return false;
    const std::string lowered = to_lower(item);
    const bool negative = lowered.starts_with('-');
    std::string_view body = lowered;
    if (body.starts_with('-') || body.starts_with('+')) body.remove_prefix(1);
    if (body.empty() || body[0] == '-' || body[0] == '+') return false;
    if (body == "inf" || body == "infinity") {
        value = negative ? -std::numeric_limits<double>::infinity()
                         : std::numeric_limits<double>::infinity();
        return true;
    }
    if (body == "nan" || (body.starts_with("nan(") && body.ends_with(")"))) {
        value = std::numeric_limits<double>::quiet_NaN();
        return true;
    }
    // Fortran writes exponents with d, D, q or Q as well, or with a bare sign.
    std::string s(body);
    bool has_exponent_letter = false;
    for (char& c : s) {
        if (c == 'd' || c == 'q') c = 'e';
        if (c == 'e') has_exponent_letter = true;
    }
    if (!has_exponent_letter) {
        for (std::size_t i = 1; i < s.size(); ++i) {
            if ((s[i] == '+' || s[i] == '-') &&
                (std::isdigit(static_cast<unsigned char>(s[i - 1])) || s[i - 1] == '.')) {
                s.insert(i, 1, 'e');
                break;
            }
        }
    }
    if (s.empty() || s[0] == 'e') return false;
    double v = 0.0;
    const auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ptr != s.data() + s.size()) return false;
    if (ec == std::errc::result_out_of_range) {
        // Overflow reads as infinity and underflow as zero, as the Fortran runtime does.
        v = s.find("e-") != std::string::npos ? 0.0 : std::numeric_limits<double>::infinity();
    } else if (ec != std::errc()) {
        return false;
    }
    value = negative ? -v : v;
    return true;
}


bool item_cursor::next_word(std::string_view& word) {
    if (ended_) return false;
    std::size_t i = 0;
    auto blank = [&](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (i < rest_.size() && blank(rest_[i])) ++i;
    // One comma, with or without blanks around it, separates two items.
    if (i < rest_.size() && rest_[i] == ',') {
        ++i;
        while (i < rest_.size() && blank(rest_[i])) ++i;
    }
    if (i >= rest_.size()) return false;
    if (rest_[i] == '/') {
        ended_ = true;
        return false;
    }
    std::size_t j = i;
    while (j < rest_.size() && !blank(rest_[j]) && rest_[j] != ',' && rest_[j] != '/') ++j;
    word = rest_.substr(i, j - i);
    rest_.remove_prefix(j);
    return !word.empty();
}

bool item_cursor::next_int(std::int64_t& value) {
    std::string_view w;
    if (!next_word(w)) return false;
    if (w.starts_with('+')) w.remove_prefix(1);
    if (w.empty()) return false;
    std::int64_t v = 0;
    const auto [ptr, ec] = std::from_chars(w.data(), w.data() + w.size(), v);
    if (ec != std::errc() || ptr != w.data() + w.size()) return false;
    value = v;
    return true;
}

bool item_cursor::next_int(std::int32_t& value) {
    std::int64_t v = 0;
    if (!next_int(v) || v < INT32_MIN || v > INT32_MAX) return false;
    value = static_cast<std::int32_t>(v);
    return true;
}

bool item_cursor::next_real(double& value) {
    std::string_view w;
    return next_word(w) && read_real_list_directed(w, value);
}

bool item_cursor::at_end() {
    std::string_view copy = rest_;
    const bool ended = ended_;
    std::string_view w;
    const bool more = next_word(w);
    rest_ = copy;
    ended_ = ended;
    return !more;
}

record_reader::record_reader() = default;
record_reader::record_reader(const std::string& file) { open(file); }
record_reader::~record_reader() = default;
record_reader::record_reader(record_reader&&) noexcept = default;
record_reader& record_reader::operator=(record_reader&&) noexcept = default;

bool record_reader::open(const std::string& file) {
    file_ = file;
    in_ = std::make_unique<line_reader>(file);
    return in_->is_open();
}

bool record_reader::is_open() const { return in_ && in_->is_open(); }

bool record_reader::next(std::string_view& record) {
    if (!more_) {
        if (!in_ || !in_->next(line_)) return false;
        if (!line_.empty() && line_.back() == '\r') line_.pop_back();
        next_ = 0;
    }
    std::string_view rest = std::string_view(line_).substr(next_);
    if (line_number_ == 0) skip_utf8_bom(rest);
    ++line_number_;
    const auto cr = rest.find('\r');
    more_ = cr != std::string_view::npos;
    record = more_ ? rest.substr(0, cr) : rest;
    if (more_) next_ = static_cast<std::size_t>(record.data() - line_.data()) + cr + 1;
    return true;
}

void record_reader::rewind() {
    if (in_) in_->rewind();
    more_ = false;
    line_number_ = 0;
}

std::string printable_excerpt(std::string_view record, std::size_t width) {
    std::string out;
    for (std::size_t i = 0; i < record.size() && i < width; ++i) {
        const auto c = static_cast<unsigned char>(record[i]);
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        }
    }
    if (record.size() > width) out += "...";
    return out;
}

void warn_reading_stopped(const record_reader& in, std::string_view record) {
    global_logger().log_warning("The file " + in.file() + " is read up to line " +
                                std::to_string(in.line_number() - 1) + " only: line " +
                                std::to_string(in.line_number()) + " does not read as a record of the file (\"" +
                                printable_excerpt(record) + "\"), and the lines from there on are ignored");
}

bool blank_record(std::string_view record) {
    return record.find_first_not_of(" \t\r") == std::string_view::npos;
}

std::size_t split_at_lines(std::string_view text, std::size_t parts, std::size_t* bounds) {
    parts = std::max<std::size_t>(1, std::min(parts, text.size() / 65536 + 1));
    bounds[0] = 0;
    std::size_t k = 1;
    for (; k < parts; ++k) {
        std::size_t at = std::max(bounds[k - 1], text.size() * k / parts);
        const auto nl = text.find('\n', at);
        if (nl == std::string_view::npos) break;
        bounds[k] = nl + 1;
    }
    bounds[k] = text.size();
    return k;
}



void split_items(std::string_view line, std::vector<std::string_view>& items) {
    items.clear();
    std::size_t i = 0;
    const std::size_t n = line.size();
    while (i < n) {
        while (i < n && is_separator(line[i])) ++i;
        if (i == n) break;
        const std::size_t start = i;
        while (i < n && !is_separator(line[i])) ++i;
        items.push_back(line.substr(start, i - start));
    }
}

std::string_view first_item(std::string_view line) {
    std::size_t i = 0;
    const std::size_t n = line.size();
    while (i < n && is_separator(line[i])) ++i;
    const std::size_t start = i;
    while (i < n && !is_separator(line[i])) ++i;
    return line.substr(start, i - start);
}

bool parse_integer(std::string_view item, std::int64_t& value) {
    if (!item.empty() && item.front() == '+') item.remove_prefix(1);
    if (item.empty() || item.front() == '+') return false;
    const char* end = item.data() + item.size();
    const auto [ptr, ec] = std::from_chars(item.data(), end, value);
    return ec == std::errc() && ptr == end;
}

bool parse_integer(std::string_view item, std::int32_t& value) {
    std::int64_t v = 0;
    if (!parse_integer(item, v) || v < std::numeric_limits<std::int32_t>::min() ||
        v > std::numeric_limits<std::int32_t>::max())
        return false;
    value = static_cast<std::int32_t>(v);
    return true;
}

bool parse_real(std::string_view item, double& value) {
    if (!item.empty() && item.front() == '+') item.remove_prefix(1);
    if (item.empty() || item.front() == '+') return false;
    // Exponents written as d or D are rewritten in a small copy; other
    // values are converted where they stand.
    char copy[64];
    const char* first = item.data();
    const char* last = item.data() + item.size();
    if (item.find_first_of("dD") != std::string_view::npos) {
        if (item.size() > sizeof copy) return false;
        std::memcpy(copy, item.data(), item.size());
        for (std::size_t i = 0; i < item.size(); ++i)
            if (copy[i] == 'd' || copy[i] == 'D') copy[i] = 'e';
        first = copy;
        last = copy + item.size();
    }
    const auto [ptr, ec] = std::from_chars(first, last, value);
    return ec == std::errc() && ptr == last;
}

line_reader::line_reader(const std::string& file) : f_(std::fopen(file.c_str(), "rb")) {
    buffer_.resize(1 << 20);
}

line_reader::~line_reader() {
    if (f_) std::fclose(f_);
}

bool line_reader::fill() {
    if (eof_ || !f_) return false;
    // Keep the part of the buffer not yet handed out at its front.
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buffer_.size()) buffer_.resize(buffer_.size() * 2);
    const std::size_t got = std::fread(buffer_.data() + end_, 1, buffer_.size() - end_, f_);
    if (got == 0) {
        eof_ = true;
        return false;
    }
    end_ += got;
    return true;
}

bool line_reader::next(std::string& line) {
    std::size_t searched = begin_;
    while (true) {
        const char* start = buffer_.data() + searched;
        const void* nl = std::memchr(start, '\n', end_ - searched);
        if (nl) {
            const std::size_t pos = static_cast<std::size_t>(static_cast<const char*>(nl) - buffer_.data());
            line.assign(buffer_.data() + begin_, pos - begin_);
            begin_ = pos + 1;
            if (++line_number_ == 1) skip_utf8_bom(line);
            return true;
        }
        const std::size_t kept = end_ - begin_;
        if (!fill()) {
            if (end_ > begin_) {
                line.assign(buffer_.data() + begin_, end_ - begin_);
                begin_ = end_;
                if (++line_number_ == 1) skip_utf8_bom(line);
                return true;
            }
            return false;
        }
        searched = begin_ + kept;
    }
}

bool line_reader::next_record(std::string& line) {
    while (next(line))
        if (!first_item(line).empty()) return true;
    return false;
}

void line_reader::rewind() {
    if (!f_) return;
    std::rewind(f_);
    begin_ = end_ = 0;
    eof_ = false;
    line_number_ = 0;
}

namespace {
constexpr std::string_view utf8_bom = "\xEF\xBB\xBF";
}  // namespace

bool skip_utf8_bom(std::string& line) {
    if (!line.starts_with(utf8_bom)) return false;
    line.erase(0, utf8_bom.size());
    return true;
}

bool skip_utf8_bom(std::string_view& line) {
    if (!line.starts_with(utf8_bom)) return false;
    line.remove_prefix(utf8_bom.size());
    return true;
}

bool file_exists(const std::string& file) {
    struct stat st {};
    return ::stat(file.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

}  // namespace krel
