#include "util/freeform.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <string>

#include "util/modcommon.h"

namespace krel {

namespace {

std::string_view first_item(std::string_view text) {
    const auto b = text.find_first_not_of(" \t");
    if (b == std::string_view::npos) return {};
    text = text.substr(b);
    const auto e = text.find_first_of(" \t,/");
    return e == std::string_view::npos ? text : text.substr(0, e);
}

}  // namespace

bool read_integer_list_directed(std::string_view text, std::int32_t& value) {
    std::string_view item = first_item(text);
    if (item.starts_with('+')) item.remove_prefix(1);
    if (item.empty()) return false;
    std::int32_t v = 0;
    const auto [ptr, ec] = std::from_chars(item.data(), item.data() + item.size(), v);
    if (ec != std::errc() || ptr != item.data() + item.size()) return false;
    value = v;
    return true;
}

bool read_real_list_directed(std::string_view text, double& value) {
    std::string_view item = first_item(text);
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

bool record_reader::open(const std::string& file) {
    file_ = file;
    in_.close();
    in_.clear();
    in_.open(file, std::ios::binary);
    return in_.is_open();
}

bool record_reader::next(std::string_view& record) {
    if (!std::getline(in_, line_)) return false;
    if (!line_.empty() && line_.back() == '\r') line_.pop_back();
    record = line_;
    return true;
}

void record_reader::rewind() {
    in_.clear();
    in_.seekg(0);
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

}  // namespace krel
