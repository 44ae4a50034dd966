#pragma once
// Number-to-text conversion in Fortran edit descriptors, file-name helpers,
// word positions and the progress bar.
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace krel {

// Integer to text in an integer edit descriptor: "(i0)" (default), "(iw)",
// "(iw.m)", or "(2x,i0,'%')" and similar lists of one integer with blanks
// ("nx") and quoted literals. The result is trimmed of surrounding blanks
// unless the list holds blank or literal items: those are laid out on purpose,
// so the text is returned exactly as Fortran writes it ("  37%").
// A field too narrow for the value is filled with asterisks. An unknown or
// malformed format throws std::invalid_argument.
std::string inttochar_int4(std::int32_t value, std::string_view format = "(i0)");
std::string inttochar_int8(std::int64_t value, std::string_view format = "(i0)");
inline std::string inttochar(std::int32_t value, std::string_view format = "(i0)") {
    return inttochar_int4(value, format);
}
inline std::string inttochar(std::int64_t value, std::string_view format = "(i0)") {
    return inttochar_int8(value, format);
}

// Real to trimmed text in a real edit descriptor: "(g0)" (default: the
// shortest text that reads back to the same double), "(g0.d)", "(f0.d)" (no
// digit before the point of a value below 1), "(fw.d)", "(e0.d)", "(ew.d)",
// "(esw.d)". Parentheses and case are optional. A field too narrow for the
// value is filled with asterisks; NaN and infinities read "NaN", "Inf",
// "-Inf" (or "Infinity" where a field is wide enough). An unknown descriptor
// throws std::invalid_argument.
std::string realtochar_real8(double value, std::string_view format = "(g0)");
inline std::string realtochar(double value, std::string_view format = "(g0)") {
    return realtochar_real8(value, format);
}

// One item of a list-directed write, laid out as gfortran does: a 32-bit
// integer in 12 columns, a 64-bit one in 21, a double in 26 (17 significant
// digits, fixed between 0.1 and 1e17, otherwise with a three-digit exponent).
std::string list_directed(std::int32_t value);
std::string list_directed(std::int64_t value);
std::string list_directed(double value);

// The trimmed dir followed by the part of path behind its last "/".
std::string outputfile(std::string_view dir, std::string_view path);

// Creates the directory and its parents; logs success or the failure and
// returns to the caller either way. Returns true on success.
bool make_directory(const std::string& path);

// 1-based positions where words start (a blank-to-non-blank transition).
std::vector<int> pos_words(std::string_view line);

// One bar of up to ten percentages per pass through a loop of n items.
class progress_bar {
public:
    void update(std::int64_t i, std::int64_t n, std::ostream& unit);
    void update(std::int64_t i, std::int64_t n);  // standard output

private:
    int last_tenth_ = 0;
};

}  // namespace krel
