#include "page_skim.h"

#include <charconv>
#include <cstring>

namespace ksctl {
namespace {

constexpr std::size_t npos = std::string_view::npos;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::size_t skipSpace(std::string_view s, std::size_t i) {
    while (i < s.size() && isSpace(s[i])) ++i;
    return i;
}

// The closing quote of the string whose opening quote is at `i`.
std::size_t stringEnd(std::string_view s, std::size_t i) {
    for (++i; i < s.size(); ++i) {
        const void* hit = std::memchr(s.data() + i, '"', s.size() - i);
        if (!hit) return npos;
        std::size_t quote = static_cast<std::size_t>(static_cast<const char*>(hit) - s.data());
        // Escaped when preceded by an odd run of backslashes.
        std::size_t slashes = 0;
        while (quote - slashes > i && s[quote - slashes - 1] == '\\') ++slashes;
        if (slashes % 2 == 0) return quote;
        i = quote;
    }
    return npos;
}

// Just past the value starting at `i` (strings and nesting skipped whole).
std::size_t valueEnd(std::string_view s, std::size_t i) {
    int depth = 0;
    for (; i < s.size(); ++i) {
        switch (s[i]) {
            case '"':
                i = stringEnd(s, i);
                if (i == npos) return npos;
                if (depth == 0) return i + 1;
                break;
            case '[':
            case '{':
                ++depth;
                break;
            case ']':
            case '}':
                if (depth == 0) return i;
                if (--depth == 0) return i + 1;
                break;
            case ',':
                if (depth == 0) return i;
                break;
            default:
                if (depth == 0 && isSpace(s[i])) return i;
        }
    }
    return npos;
}

// Where the array's last item starts, its items skipped one by one.
std::size_t lastItemStart(std::string_view s) {
    std::size_t i = skipSpace(s, 0);
    if (i >= s.size() || s[i] != '[') return npos;
    for (i = skipSpace(s, i + 1);;) {
        const std::size_t start = i;
        const std::size_t end = valueEnd(s, i);
        if (end == npos) return npos;
        i = skipSpace(s, end);
        if (i >= s.size()) return npos;
        if (s[i] == ']') return start;
        if (s[i] != ',') return npos;
        i = skipSpace(s, i + 1);
    }
}

}  // namespace

std::optional<std::int64_t> skimLastKey(std::string_view page, std::string_view key) {
    std::size_t i = lastItemStart(page);
    if (i == npos) return std::nullopt;
    i = skipSpace(page, i);
    if (i >= page.size() || page[i] != '{') return std::nullopt;
    ++i;
    for (;;) {
        i = skipSpace(page, i);
        if (i >= page.size() || page[i] != '"') return std::nullopt;
        const std::size_t nameEnd = stringEnd(page, i);
        if (nameEnd == npos) return std::nullopt;
        const std::string_view name = page.substr(i + 1, nameEnd - i - 1);
        i = skipSpace(page, nameEnd + 1);
        if (i >= page.size() || page[i] != ':') return std::nullopt;
        i = skipSpace(page, i + 1);
        const std::size_t end = valueEnd(page, i);
        if (end == npos) return std::nullopt;
        if (name == key) {
            std::int64_t value = 0;
            const auto [stop, ec] = std::from_chars(page.data() + i, page.data() + end, value);
            if (ec != std::errc() || stop != page.data() + end) return std::nullopt;
            return value;
        }
        i = skipSpace(page, end);
        if (i >= page.size() || page[i] != ',') return std::nullopt;
        ++i;
    }
}

}  // namespace ksctl
