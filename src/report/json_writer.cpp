#include "report/json_writer.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace krel {

std::string json_quoted(std::string_view text) {
    std::string out = "\"";
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    // Bytes of 0x80 and above pass as they are: file names are
                    // taken to be UTF-8.
                    out += ch;
                }
        }
    }
    return out + '"';
}

void json_writer::newline() {
    out_ += '\n';
    out_.append(2 * open_.size(), ' ');
}

void json_writer::before_value() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (open_.empty()) return;
    if (!open_.back().empty) out_ += ',';
    open_.back().empty = false;
    newline();
}

void json_writer::begin_object() {
    before_value();
    out_ += '{';
    open_.push_back({false, true});
}

void json_writer::end_object() {
    const bool empty = open_.back().empty;
    open_.pop_back();
    if (!empty) newline();
    out_ += '}';
    if (open_.empty()) out_ += '\n';
}

void json_writer::begin_array() {
    before_value();
    out_ += '[';
    open_.push_back({true, true});
}

void json_writer::end_array() {
    const bool empty = open_.back().empty;
    open_.pop_back();
    if (!empty) newline();
    out_ += ']';
}

void json_writer::key(std::string_view name) {
    before_value();
    out_ += json_quoted(name);
    out_ += ": ";
    after_key_ = true;
}

void json_writer::value(std::string_view text) {
    before_value();
    out_ += json_quoted(text);
}

void json_writer::value(double number) {
    before_value();
    if (!std::isfinite(number)) {
        out_ += "null";
        return;
    }
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf, number);
    out_.append(buf, r.ptr);
}

void json_writer::value(std::int64_t number) {
    before_value();
    out_ += std::to_string(number);
}

void json_writer::value(bool flag) {
    before_value();
    out_ += flag ? "true" : "false";
}

void json_writer::null() {
    before_value();
    out_ += "null";
}

}  // namespace krel
