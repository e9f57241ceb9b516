#ifndef COMMON_JSON_JSON_TEXT_H
#define COMMON_JSON_JSON_TEXT_H

// JSON string literals for the operator's output, shared by ksd and ksctl:
// any byte sequence (names come from clients) yields valid JSON text, bytes
// that are not valid UTF-8 becoming U+FFFD. Header-only, no dependencies.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace jsontext {

// Length of the valid UTF-8 sequence starting at s[i], or 0 when it is not one.
inline std::size_t utf8Length(std::string_view s, std::size_t i) {
    const auto b0 = static_cast<unsigned char>(s[i]);
    if (b0 < 0x80) return 1;
    std::size_t n = 0;
    std::uint32_t cp = 0;
    if ((b0 & 0xE0) == 0xC0) {
        n = 2;
        cp = b0 & 0x1F;
    } else if ((b0 & 0xF0) == 0xE0) {
        n = 3;
        cp = b0 & 0x0F;
    } else if ((b0 & 0xF8) == 0xF0) {
        n = 4;
        cp = b0 & 0x07;
    } else {
        return 0;
    }
    if (i + n > s.size()) return 0;
    for (std::size_t k = 1; k < n; ++k) {
        const auto b = static_cast<unsigned char>(s[i + k]);
        if ((b & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (b & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not text.
    static constexpr std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return n;
}

// Appends `text` as a JSON string literal, quotes included.
inline void appendString(std::string& out, std::string_view text) {
    out.push_back('"');
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const char* escape = nullptr;
        switch (c) {
            case '"': escape = "\\\""; break;
            case '\\': escape = "\\\\"; break;
            case '\n': escape = "\\n"; break;
            case '\r': escape = "\\r"; break;
            case '\t': escape = "\\t"; break;
            default: break;
        }
        if (escape != nullptr) {
            out += escape;
            ++i;
        } else if (c < 0x20 || c == 0x7F) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
            out += buf;
            ++i;
        } else if (const std::size_t n = utf8Length(text, i); n == 0) {
            out += "\xEF\xBF\xBD";  // U+FFFD
            ++i;
        } else {
            out.append(text.data() + i, n);
            i += n;
        }
    }
    out.push_back('"');
}

inline std::string quote(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    appendString(out, text);
    return out;
}

}  // namespace jsontext

#endif
