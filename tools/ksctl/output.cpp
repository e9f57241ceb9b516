#include "output.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace ksctl {
namespace {

// A UTF-8 sequence at s[i] with no control characters, or 0.
std::size_t printableLength(std::string_view s, std::size_t i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
        bool ok = (c >= 0x20 && c != 0x7F) || c == '\t' || c == '\n' || c == '\r';
        return ok ? 1 : 0;
    }
    std::size_t n = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    if (n == 0 || i + n > s.size()) return 0;
    unsigned cp = c & (0x7F >> n);
    for (std::size_t k = 1; k < n; ++k) {
        unsigned char b = static_cast<unsigned char>(s[i + k]);
        if ((b & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (b & 0x3F);
    }
    static constexpr unsigned kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    if (cp >= 0x80 && cp < 0xA0) return 0;  // C1 controls
    return n;
}

std::size_t displayWidth(std::string_view s) {
    // Columns are counted in code points, so names in other scripts still line up.
    return static_cast<std::size_t>(
        std::count_if(s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

void appendPadded(std::string& out, std::string_view text, std::size_t width) {
    out.append(text);
    out.append(width - std::min(width, displayWidth(text)), ' ');
}

bool isScalar(const JsonValue& v) { return v.kind != JsonValue::Kind::Array && v.kind != JsonValue::Kind::Object; }

}  // namespace

PayloadPreview previewPayload(std::string_view bytes, std::size_t limit) {
    PayloadPreview p;
    p.printable = true;
    for (std::size_t i = 0; i < bytes.size();) {
        std::size_t n = printableLength(bytes, i);
        if (n == 0) {
            p.printable = false;
            break;
        }
        i += n;
    }
    p.truncated = bytes.size() > limit;
    std::string_view shown = bytes.substr(0, limit);
    if (p.printable) {
        // Never cut a character in half.
        std::size_t end = shown.size();
        while (end > 0 && end < bytes.size() && (static_cast<unsigned char>(bytes[end]) & 0xC0) == 0x80) --end;
        p.shown.assign(shown.substr(0, end));
        return p;
    }
    p.shown.reserve(shown.size() * 3);
    char buf[4];
    for (std::size_t i = 0; i < shown.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%02x", static_cast<unsigned char>(shown[i]));
        if (i > 0) p.shown += ' ';
        p.shown += buf;
    }
    return p;
}

std::string oneLine(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        unsigned char u = static_cast<unsigned char>(c);
        switch (c) {
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\\':
                out += "\\\\";
                break;
            default:
                if (u < 0x20 || u == 0x7F) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\x%02x", u);
                    out += buf;
                } else {
                    out += c;
                }
        }
    }
    return out;
}

std::string displayText(const JsonValue& value) {
    switch (value.kind) {
        case JsonValue::Kind::String:
            return oneLine(value.text);
        case JsonValue::Kind::Array:
            if (std::all_of(value.items.begin(), value.items.end(), isScalar)) {
                std::string out;
                for (const auto& item : value.items) {
                    if (!out.empty()) out += ",";
                    out += displayText(item);
                }
                return out.empty() ? "-" : out;
            }
            return toJson(value);
        case JsonValue::Kind::Object:
            return toJson(value);
        default:
            return toJson(value);
    }
}

std::string renderFields(const JsonValue& object) {
    std::size_t width = 0;
    for (const auto& [key, value] : object.members) width = std::max(width, displayWidth(key));
    std::string out;
    for (const auto& [key, value] : object.members) {
        appendPadded(out, key, width + 2);
        out += displayText(value);
        out += '\n';
    }
    return out;
}

std::string renderTable(const JsonValue& array) {
    std::vector<std::string> columns;
    auto addColumn = [&](const std::string& name) {
        if (std::find(columns.begin(), columns.end(), name) == columns.end()) columns.push_back(name);
    };
    for (const auto& item : array.items) {
        if (item.kind == JsonValue::Kind::Object) {
            for (const auto& member : item.members) addColumn(member.name);
        } else {
            addColumn("value");
        }
    }

    std::vector<std::vector<std::string>> rows;
    rows.reserve(array.items.size());
    for (const auto& item : array.items) {
        std::vector<std::string> row;
        for (const auto& column : columns) {
            const JsonValue* cell = item.kind == JsonValue::Kind::Object ? item.find(column)
                                    : column == "value"                  ? &item
                                                                         : nullptr;
            row.push_back(cell ? displayText(*cell) : "-");
        }
        rows.push_back(std::move(row));
    }

    std::vector<std::size_t> widths;
    for (std::size_t c = 0; c < columns.size(); ++c) {
        std::size_t w = displayWidth(columns[c]);
        for (const auto& row : rows) w = std::max(w, displayWidth(row[c]));
        widths.push_back(w);
    }

    std::string out;
    auto emit = [&](const std::vector<std::string>& cells) {
        std::string line;
        for (std::size_t c = 0; c < cells.size(); ++c) {
            if (c + 1 == cells.size()) {
                line += cells[c];
            } else {
                appendPadded(line, cells[c], widths[c] + 2);
            }
        }
        out += line;
        out += '\n';
    };
    if (columns.empty()) return out;
    emit(columns);
    for (const auto& row : rows) emit(row);
    return out;
}

}  // namespace ksctl
