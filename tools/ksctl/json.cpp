#include "json.h"

#include "json/json_text.h"

#include <charconv>
#include <cstdio>

namespace ksctl {
namespace {

// Answers nest a few levels; the bound keeps hostile input from exhausting the stack.
constexpr int kMaxDepth = 128;

class Parser {
public:
    explicit Parser(std::string_view in) : in_(in) {}

    std::optional<JsonValue> parseDocument() {
        JsonValue value;
        skipSpace();
        if (!parseValue(value, 0)) return std::nullopt;
        skipSpace();
        if (pos_ != in_.size()) return std::nullopt;
        return value;
    }

private:
    bool atEnd() const { return pos_ >= in_.size(); }
    char peek() const { return in_[pos_]; }

    void skipSpace() {
        while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')) ++pos_;
    }

    bool literal(std::string_view word) {
        if (in_.substr(pos_, word.size()) != word) return false;
        pos_ += word.size();
        return true;
    }

    bool parseValue(JsonValue& out, int depth) {
        if (atEnd() || depth > kMaxDepth) return false;
        switch (peek()) {
            case '{':
                return parseObject(out, depth);
            case '[':
                return parseArray(out, depth);
            case '"':
                out.kind = JsonValue::Kind::String;
                return parseString(out.text);
            case 't':
                out.kind = JsonValue::Kind::Bool;
                out.boolean = true;
                return literal("true");
            case 'f':
                out.kind = JsonValue::Kind::Bool;
                out.boolean = false;
                return literal("false");
            case 'n':
                out.kind = JsonValue::Kind::Null;
                return literal("null");
            default:
                return parseNumber(out);
        }
    }

    bool parseObject(JsonValue& out, int depth) {
        out.kind = JsonValue::Kind::Object;
        ++pos_;
        skipSpace();
        if (!atEnd() && peek() == '}') {
            ++pos_;
            return true;
        }
        // Objects in a list share their shape: one allocation for the members, not one per doubling.
        out.members.reserve(memberHint_);
        for (;;) {
            skipSpace();
            if (atEnd() || peek() != '"') return false;
            JsonMember& member = out.members.emplace_back();
            if (!parseString(member.name)) return false;
            skipSpace();
            if (atEnd() || peek() != ':') return false;
            ++pos_;
            skipSpace();
            if (!parseValue(member.value, depth + 1)) return false;
            skipSpace();
            if (atEnd()) return false;
            if (peek() == ',') {
                ++pos_;
                continue;
            }
            if (peek() != '}') return false;
            ++pos_;
            memberHint_ = out.members.size();
            return true;
        }
    }

    bool parseArray(JsonValue& out, int depth) {
        out.kind = JsonValue::Kind::Array;
        ++pos_;
        skipSpace();
        if (!atEnd() && peek() == ']') {
            ++pos_;
            return true;
        }
        for (;;) {
            skipSpace();
            if (!parseValue(out.items.emplace_back(), depth + 1)) return false;
            skipSpace();
            if (atEnd()) return false;
            if (peek() == ',') {
                ++pos_;
                continue;
            }
            if (peek() != ']') return false;
            ++pos_;
            return true;
        }
    }

    bool parseHex4(unsigned& out) {
        if (in_.size() - pos_ < 4) return false;
        out = 0;
        for (int i = 0; i < 4; ++i) {
            char c = in_[pos_++];
            out <<= 4;
            if (c >= '0' && c <= '9')
                out |= static_cast<unsigned>(c - '0');
            else if (c >= 'a' && c <= 'f')
                out |= static_cast<unsigned>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                out |= static_cast<unsigned>(c - 'A' + 10);
            else
                return false;
        }
        return true;
    }

    static void appendUtf8(std::string& s, unsigned cp) {
        if (cp < 0x80) {
            s += static_cast<char>(cp);
        } else if (cp < 0x800) {
            s += static_cast<char>(0xC0 | (cp >> 6));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            s += static_cast<char>(0xE0 | (cp >> 12));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            s += static_cast<char>(0xF0 | (cp >> 18));
            s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }

    bool parseString(std::string& out) {
        ++pos_;  // opening quote
        while (!atEnd()) {
            // Plain bytes up to the next quote, escape or control byte go in one append.
            const std::size_t run = pos_;
            while (!atEnd() && peek() != '"' && peek() != '\\' && static_cast<unsigned char>(peek()) >= 0x20) ++pos_;
            out.append(in_.data() + run, pos_ - run);
            if (atEnd()) return false;
            char c = in_[pos_++];
            if (c == '"') return true;
            if (c != '\\') return false;  // a control byte
            if (atEnd()) return false;
            char e = in_[pos_++];
            switch (e) {
                case '"':
                    out += '"';
                    break;
                case '\\':
                    out += '\\';
                    break;
                case '/':
                    out += '/';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'u': {
                    unsigned cp = 0;
                    if (!parseHex4(cp)) return false;
                    if (cp >= 0xD800 && cp < 0xDC00) {
                        unsigned low = 0;
                        if (!literal("\\u") || !parseHex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
                        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                        return false;
                    }
                    appendUtf8(out, cp);
                    break;
                }
                default:
                    return false;
            }
        }
        return false;
    }

    bool digits() {
        std::size_t start = pos_;
        while (!atEnd() && peek() >= '0' && peek() <= '9') ++pos_;
        return pos_ > start;
    }

    bool parseNumber(JsonValue& out) {
        std::size_t start = pos_;
        if (!atEnd() && peek() == '-') ++pos_;
        if (atEnd()) return false;
        if (peek() == '0') {
            ++pos_;
        } else if (!digits()) {
            return false;
        }
        if (!atEnd() && peek() == '.') {
            ++pos_;
            if (!digits()) return false;
        }
        if (!atEnd() && (peek() == 'e' || peek() == 'E')) {
            ++pos_;
            if (!atEnd() && (peek() == '+' || peek() == '-')) ++pos_;
            if (!digits()) return false;
        }
        out.kind = JsonValue::Kind::Number;
        out.text.assign(in_.substr(start, pos_ - start));
        return true;
    }

    std::string_view in_;
    std::size_t pos_ = 0;
    std::size_t memberHint_ = 0;
};

void writeValue(std::string& out, const JsonValue& v) {
    switch (v.kind) {
        case JsonValue::Kind::Null:
            out += "null";
            break;
        case JsonValue::Kind::Bool:
            out += v.boolean ? "true" : "false";
            break;
        case JsonValue::Kind::Number:
            out += v.text;
            break;
        case JsonValue::Kind::String:
            jsontext::appendString(out, v.text);
            break;
        case JsonValue::Kind::Array: {
            out += '[';
            bool first = true;
            for (const auto& item : v.items) {
                if (!first) out += ',';
                first = false;
                writeValue(out, item);
            }
            out += ']';
            break;
        }
        case JsonValue::Kind::Object: {
            out += '{';
            bool first = true;
            for (const auto& [key, member] : v.members) {
                if (!first) out += ',';
                first = false;
                jsontext::appendString(out, key);
                out += ':';
                writeValue(out, member);
            }
            out += '}';
            break;
        }
    }
}

}  // namespace

const JsonValue* JsonValue::find(std::string_view key) const {
    if (kind != Kind::Object) return nullptr;
    for (const auto& [name, value] : members) {
        if (name == key) return &value;
    }
    return nullptr;
}

std::optional<std::int64_t> JsonValue::asInt() const {
    if (kind != Kind::Number) return std::nullopt;
    std::int64_t n = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), n);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return n;
}

std::optional<JsonValue> parseJson(std::string_view input) { return Parser(input).parseDocument(); }

std::string jsonQuote(std::string_view s) { return jsontext::quote(s); }

std::string toJson(const JsonValue& value) {
    std::string out;
    writeValue(out, value);
    return out;
}

void appendJson(std::string& out, const JsonValue& value) { writeValue(out, value); }

}  // namespace ksctl
