#include "util/fortran_format.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

#include "util/logger.h"
#include "util/numeric_helpers.h"

namespace krel {

namespace {

// Widths and digit counts beyond this are typing errors, not layouts; the
// cap keeps a stray format from allocating an absurd buffer.
constexpr int max_field = 4096;

bool is_blank(char c) { return c == ' ' || c == '\t'; }

[[noreturn]] void bad_format(std::string_view format) {
    throw std::invalid_argument("Unsupported edit descriptor \"" + std::string(format) + "\"");
}

// Reads the unsigned decimal number at the front of s and advances past it.
// Returns -1 when s does not start with a digit.
int take_number(std::string_view& s, std::string_view format) {
    if (s.empty() || s.front() < '0' || s.front() > '9') return -1;
    int value = 0;
    const auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    if (ptr == s.data()) return -1;
    if (ec != std::errc() || value > max_field) bad_format(format);
    s.remove_prefix(static_cast<std::size_t>(ptr - s.data()));
    return value;
}

// Drops one enclosing pair of parentheses; unbalanced ones are an error.
std::string_view strip_parentheses(std::string_view s, std::string_view format) {
    const bool open = !s.empty() && s.front() == '(';
    const bool close = !s.empty() && s.back() == ')';
    if (open != close || (open && s.size() < 2)) bad_format(format);
    if (open) s = s.substr(1, s.size() - 2);
    return s;
}

// ---------------------------------------------------------------- integers

struct int_item {
    enum class kind { blanks, literal, integer } what;
    std::string text;  // literal text
    int count = 0;     // blanks, or the field width of the integer
    int min_digits = -1;  // the m of iw.m; -1 when absent
};

// Splits an integer format list into items. Blanks outside quotes carry no
// meaning in a format; a doubled quote inside a literal stands for itself.
std::vector<int_item> parse_int_format(std::string_view format) {
    std::string_view body = strip_parentheses(trim(format), format);
    std::vector<std::string> tokens;
    std::vector<bool> quoted;
    std::string current;
    auto flush = [&] {
        if (!current.empty()) {
            tokens.push_back(current);
            quoted.push_back(false);
            current.clear();
        }
    };
    for (std::size_t k = 0; k < body.size(); ++k) {
        const char c = body[k];
        if (c == '\'' || c == '"') {
            flush();
            std::string lit;
            std::size_t j = k + 1;
            bool closed = false;
            for (; j < body.size(); ++j) {
                if (body[j] == c) {
                    if (j + 1 < body.size() && body[j + 1] == c) {
                        lit += c;
                        ++j;
                    } else {
                        closed = true;
                        break;
                    }
                } else {
                    lit += body[j];
                }
            }
            if (!closed) bad_format(format);
            tokens.push_back(lit);
            quoted.push_back(true);
            k = j;
        } else if (c == ',') {
            flush();
        } else if (!is_blank(c)) {
            current += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    flush();

    std::vector<int_item> items;
    int integers = 0;
    for (std::size_t t = 0; t < tokens.size(); ++t) {
        if (quoted[t]) {
            items.push_back({int_item::kind::literal, tokens[t]});
            continue;
        }
        std::string_view s = tokens[t];
        if (s.back() == 'x') {
            s.remove_suffix(1);
            int n = 1;
            if (!s.empty()) {
                n = take_number(s, format);
                if (n <= 0 || !s.empty()) bad_format(format);
            }
            items.push_back({int_item::kind::blanks, {}, n});
        } else if (s.front() == 'i') {
            s.remove_prefix(1);
            int_item item{int_item::kind::integer, {}, take_number(s, format)};
            if (item.count < 0) bad_format(format);
            if (!s.empty()) {
                if (s.front() != '.') bad_format(format);
                s.remove_prefix(1);
                item.min_digits = take_number(s, format);
                if (item.min_digits < 0 || !s.empty()) bad_format(format);
                if (item.count > 0 && item.min_digits > item.count) bad_format(format);
            }
            items.push_back(item);
            ++integers;
        } else {
            bad_format(format);
        }
    }
    // One value is written; a second integer descriptor would never be reached
    // and most likely means the wrong format was passed.
    if (integers != 1) bad_format(format);
    return items;
}

std::string integer_field(std::int64_t value, const int_item& item) {
    const bool negative = value < 0;
    // Unsigned negation keeps the most negative value representable.
    const std::uint64_t magnitude =
        negative ? std::uint64_t{0} - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
    std::string digits;
    // Fortran writes no digit at all for a zero under a minimum of zero digits.
    if (!(magnitude == 0 && item.min_digits == 0)) digits = std::to_string(magnitude);
    if (item.min_digits > 0 && static_cast<int>(digits.size()) < item.min_digits)
        digits.insert(0, static_cast<std::size_t>(item.min_digits) - digits.size(), '0');
    std::string text = (negative ? "-" : "") + digits;
    if (item.count == 0) return text;
    const auto width = static_cast<std::size_t>(item.count);
    if (text.size() > width) return std::string(width, '*');
    return std::string(width - text.size(), ' ') + text;
}

std::string int_to_text(std::int64_t value, std::string_view format) {
    const std::vector<int_item> items = parse_int_format(format);
    std::string out;
    bool laid_out = false;
    for (const int_item& item : items) {
        switch (item.what) {
            case int_item::kind::blanks:
                out.append(static_cast<std::size_t>(item.count), ' ');
                laid_out = true;
                break;
            case int_item::kind::literal:
                out += item.text;
                laid_out = true;
                break;
            case int_item::kind::integer:
                out += integer_field(value, item);
                break;
        }
    }
    return laid_out ? out : std::string(trim(out));
}

// ------------------------------------------------------------------- reals

enum class real_kind { g_shortest, g, f, e, es };

struct real_format {
    real_kind kind;
    int width = 0;
    int digits = 0;
};

real_format parse_real_format(std::string_view format) {
    std::string s;
    for (char c : format)
        if (!is_blank(c)) s += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::string_view body = strip_parentheses(s, format);
    real_format f{real_kind::f};
    if (body.starts_with("es")) {
        f.kind = real_kind::es;
        body.remove_prefix(2);
    } else if (!body.empty() && (body.front() == 'e' || body.front() == 'f' || body.front() == 'g')) {
        f.kind = body.front() == 'e' ? real_kind::e : body.front() == 'f' ? real_kind::f : real_kind::g;
        body.remove_prefix(1);
    } else {
        bad_format(format);
    }
    f.width = take_number(body, format);
    if (f.width < 0) bad_format(format);
    if (body.empty()) {
        if (f.kind == real_kind::g && f.width == 0) return {real_kind::g_shortest};
        bad_format(format);
    }
    if (body.front() != '.') bad_format(format);
    body.remove_prefix(1);
    f.digits = take_number(body, format);
    if (f.digits < 0 || !body.empty()) bad_format(format);
    switch (f.kind) {
        case real_kind::g:
            // Only the minimal-width form: a fixed-width G field pads with
            // trailing blanks that the trimmed result would throw away anyway,
            // and nobody here relies on its asterisks.
            if (f.width != 0 || f.digits == 0) bad_format(format);
            break;
        case real_kind::e:
            if (f.digits == 0) bad_format(format);
            break;
        case real_kind::es:
            if (f.width == 0 && f.digits == 0) bad_format(format);
            break;
        default:
            break;
    }
    return f;
}

std::string chars(double value, std::chars_format fmt, int precision) {
    // Fixed notation of the largest double needs 309 digits before the point.
    std::string buf(static_cast<std::size_t>(precision) + 340, '\0');
    const auto r = std::to_chars(buf.data(), buf.data() + buf.size(), value, fmt, precision);
    buf.resize(static_cast<std::size_t>(r.ptr - buf.data()));
    return buf;
}

// Fits text into a field of width w (0: as wide as needed). The optional zero
// in front of the decimal point is the first thing given up.
std::string fit(const std::string& with_zero, const std::string& without_zero, int w) {
    if (w == 0) return with_zero;
    const auto width = static_cast<std::size_t>(w);
    if (with_zero.size() <= width) return with_zero;
    if (without_zero.size() <= width) return without_zero;
    return std::string(width, '*');
}

std::string non_finite(double value, int w) {
    std::string text;
    if (std::isnan(value)) {
        text = "NaN";
    } else {
        const bool negative = std::signbit(value);
        const bool spelled = w != 0 && w >= (negative ? 9 : 8);
        text = std::string(negative ? "-" : "") + (spelled ? "Infinity" : "Inf");
    }
    if (w != 0 && text.size() > static_cast<std::size_t>(w)) return std::string(static_cast<std::size_t>(w), '*');
    return text;
}

std::string f_edit(double value, int w, int d) {
    const std::string sign = std::signbit(value) ? "-" : "";
    std::string s = chars(std::fabs(value), std::chars_format::fixed, d);
    if (d == 0) s += '.';
    const std::string full = sign + s;
    // With no decimals the zero is the only digit and has to stay.
    const std::string bare = d > 0 && s.starts_with("0.") ? sign + s.substr(1) : full;
    // A minimal-width field never shows the zero in front of the point.
    return w == 0 ? bare : fit(full, bare, w);
}

// Significant digits and decimal exponent of |value| with the mantissa in
// [0.1, 1), rounded to d digits. The exponent of zero is 0.
void fraction_digits(double value, int d, std::string& digits, int& exponent) {
    if (value == 0.0) {
        digits.assign(static_cast<std::size_t>(d), '0');
        exponent = 0;
        return;
    }
    const std::string s = chars(std::fabs(value), std::chars_format::scientific, d - 1);
    const std::size_t epos = s.find('e');
    digits.clear();
    for (std::size_t k = 0; k < epos; ++k)
        if (s[k] != '.') digits += s[k];
    exponent = std::atoi(s.c_str() + epos + 1) + 1;
}

// The exponent part: a field of minimal width drops a zero exponent and uses
// as few digits as needed; otherwise two digits after "E", or three digits in
// place of the "E" once the exponent exceeds 99.
std::string exponent_text(int exponent, int w) {
    const char sign = exponent < 0 ? '-' : '+';
    const int magnitude = std::abs(exponent);
    if (w == 0) return exponent == 0 ? std::string() : fmt::format("E{}{}", sign, magnitude);
    if (magnitude <= 99) return fmt::format("E{}{:02}", sign, magnitude);
    return fmt::format("{}{:03}", sign, magnitude);
}

std::string e_edit(double value, int w, int d) {
    const std::string sign = std::signbit(value) ? "-" : "";
    std::string digits;
    int exponent = 0;
    fraction_digits(value, d, digits, exponent);
    const std::string tail = "." + digits + exponent_text(exponent, w);
    return fit(sign + "0" + tail, sign + tail, w);
}

std::string es_edit(double value, int w, int d) {
    const std::string sign = std::signbit(value) ? "-" : "";
    const std::string s = chars(std::fabs(value), std::chars_format::scientific, d);
    const std::size_t epos = s.find('e');
    std::string mantissa = s.substr(0, epos);
    if (d == 0) mantissa += '.';
    const int exponent = std::atoi(s.c_str() + epos + 1);
    const std::string text = sign + mantissa + exponent_text(exponent, w);
    return fit(text, text, w);
}

// G editing of minimal width: F form when the value rounded to d significant
// digits lies in [0.1, 10**d), E form otherwise.
std::string g_edit(double value, int d) {
    const std::string sign = std::signbit(value) ? "-" : "";
    if (value == 0.0) return sign + "0." + std::string(static_cast<std::size_t>(d - 1), '0');
    std::string digits;
    int exponent = 0;
    fraction_digits(value, d, digits, exponent);
    if (exponent >= 0 && exponent <= d) {
        const auto n = static_cast<std::size_t>(exponent);
        const std::string whole = n == 0 ? std::string("0") : digits.substr(0, n);
        return sign + whole + "." + digits.substr(n);
    }
    return sign + "0." + digits + exponent_text(exponent, 0);
}

std::string shortest(double value) {
    char buf[64];
    const auto r = std::to_chars(buf, buf + sizeof buf, value);
    return std::string(buf, r.ptr);
}

}  // namespace

std::string inttochar_int4(std::int32_t value, std::string_view format) {
    return int_to_text(value, format);
}

std::string inttochar_int8(std::int64_t value, std::string_view format) {
    return int_to_text(value, format);
}

std::string realtochar_real8(double value, std::string_view format) {
    const real_format f = parse_real_format(format);
    if (!std::isfinite(value)) return non_finite(value, f.width);
    std::string text;
    switch (f.kind) {
        case real_kind::g_shortest: text = shortest(value); break;
        case real_kind::g: text = g_edit(value, f.digits); break;
        case real_kind::f: text = f_edit(value, f.width, f.digits); break;
        case real_kind::e: text = e_edit(value, f.width, f.digits); break;
        case real_kind::es: text = es_edit(value, f.width, f.digits); break;
    }
    return text;
}

std::string outputfile(std::string_view dir, std::string_view path) {
    // Directory names come from fixed-width input fields: only the padding
    // behind them is dropped.
    while (!dir.empty() && is_blank(dir.back())) dir.remove_suffix(1);
    const std::size_t slash = path.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    return std::string(dir) + std::string(name);
}

bool make_directory(const std::string& path) {
    std::error_code ec;
    if (!make_directory_all(path, ec)) {
        global_logger().log_error(
            "The directory " + path + " could not be created: " + ec.message(), "modbasic",
            procedure_at("make_directory"));
        return false;
    }
    global_logger().log_message(path + " created sucessfully");
    return true;
}

std::vector<int> pos_words(std::string_view line) {
    std::vector<int> positions;
    bool previous_blank = true;
    for (std::size_t k = 0; k < line.size(); ++k) {
        const bool blank = is_blank(line[k]);
        if (previous_blank && !blank) positions.push_back(static_cast<int>(k) + 1);
        previous_blank = blank;
    }
    return positions;
}

void progress_bar::update(std::int64_t i, std::int64_t n, std::ostream& unit) {
    if (n <= 0) return;
    // Single precision on purpose: the bar has always been computed this way,
    // and the exact point where a tenth flips must not move.
    const float ratio = static_cast<float>(i) / static_cast<float>(n) * 100.0f;
    // A counter far past the end must not overflow the conversion.
    const int p = ratio >= 2.0e9f ? 2000000000 : ratio <= -2.0e9f ? -2000000000 : static_cast<int>(ratio);
    if (p / 10 > last_tenth_) {
        unit << inttochar_int4(p, "(2x,i0,'%')");
        unit.flush();
        last_tenth_ = p / 10;
    }
    if (p == 100) {
        unit << '\n';
        unit.flush();
        last_tenth_ = 0;
    }
}

void progress_bar::update(std::int64_t i, std::int64_t n) { update(i, n, std::cout); }

std::string list_directed(std::int32_t value) { return fmt::format("{:>12}", value); }

std::string list_directed(std::int64_t value) { return fmt::format("{:>21}", value); }

std::string list_directed(double value) {
    const double a = std::fabs(value);
    if (a == 0.0 || (a >= 0.1 && a < 1.0e17) || !std::isfinite(value)) {
        const int before = a == 0.0 || !std::isfinite(value) ? 1 : static_cast<int>(std::floor(std::log10(a))) + 1;
        const int decimals = std::max(0, 17 - before);
        return fmt::format("{:>21}     ", fmt::format("{:.{}f}", value, decimals));
    }
    const int e = static_cast<int>(std::floor(std::log10(a)));
    double mantissa = value / std::pow(10.0, e);
    int shown = e + 1;
    if (std::fabs(mantissa) >= 10.0) {
        mantissa /= 10.0;
        ++shown;
    }
    // Outside that range: a mantissa in [1, 10) and a three-digit exponent.
    return fmt::format("{:>26}", fmt::format("{:.16f}E{}{:03d}", mantissa, shown - 1 < 0 ? '-' : '+',
                                             std::abs(shown - 1)));
}

}  // namespace krel
