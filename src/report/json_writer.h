#pragma once
// A small JSON writer: objects, arrays, strings with every control character
// escaped, numbers with non-finite values as null. Commas and indentation are
// kept by a stack of open containers.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace krel {

class json_writer {
public:
    void begin_object();
    void end_object();
    void begin_array();
    void end_array();
    // The name of the next member of the open object.
    void key(std::string_view name);
    void value(std::string_view text);
    void value(const char* text) { value(std::string_view(text)); }
    void value(double number);
    void value(std::int64_t number);
    void value(int number) { value(static_cast<std::int64_t>(number)); }
    void value(bool flag);
    void null();
    // A key and its value, the common case of an object's member.
    template <class T>
    void field(std::string_view name, const T& v) {
        key(name);
        value(v);
    }

    const std::string& text() const { return out_; }

private:
    void before_value();
    void newline();

    std::string out_;
    struct level {
        bool array;
        bool empty;
    };
    std::vector<level> open_;
    bool after_key_ = false;
};

// The text as a quoted JSON string.
std::string json_quoted(std::string_view text);

}  // namespace krel
