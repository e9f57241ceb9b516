#ifndef KSCTL_JSON_H
#define KSCTL_JSON_H

// A small JSON reader and writer for the daemon's query answers and ksctl's --json output.
// parseJson accepts exactly one RFC 8259 value (with surrounding whitespace) or returns nothing.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ksctl {

struct JsonMember;

struct JsonValue {
    enum class Kind { Null, Bool, Number, String, Array, Object };

    Kind kind = Kind::Null;
    bool boolean = false;
    // String: the decoded text. Number: the literal as written, so integers stay exact.
    std::string text;
    std::vector<JsonValue> items;     // Array
    std::vector<JsonMember> members;  // Object, in document order

    // The member named `key` of an object, or null (also for non-objects).
    const JsonValue* find(std::string_view key) const;
    // The number as a 64-bit integer when it is one (no fraction, no exponent, in range).
    std::optional<std::int64_t> asInt() const;
};

// Not a std::pair: the constraints of pair's default constructor ask whether
// JsonValue is default-constructible while pair<..., JsonValue> is still
// incomplete, which clang rejects.
struct JsonMember {
    std::string name;
    JsonValue value;
};

std::optional<JsonValue> parseJson(std::string_view input);

// `s` as a JSON string literal, quotes included. Bytes that are not valid
// UTF-8 are written as U+FFFD so the output is always valid JSON.
std::string jsonQuote(std::string_view s);

// Compact serialisation (numbers are written as their literal).
std::string toJson(const JsonValue& value);
void appendJson(std::string& out, const JsonValue& value);

}  // namespace ksctl

#endif
