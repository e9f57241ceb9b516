#include "output.h"

#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <map>
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

// The user name of `uid`, looked up once per uid (a list repeats its owners); empty if none.
const std::string& userName(std::int64_t uid) {
    static std::map<std::int64_t, std::string> known;
    auto [it, added] = known.try_emplace(uid);
    if (!added) return it->second;
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(4096);
    while (::getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
           buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    if (found != nullptr) it->second = found->pw_name;
    return it->second;
}

// A cell or field as a person reads it; uids carry their user's name.
void appendShown(std::string& out, std::string_view key, const JsonValue& value) {
    appendDisplayText(out, value);
    if (key != "owner_uid" && key != "uid") return;
    const auto uid = value.asInt();
    if (!uid || *uid < 0 || *uid > 0xFFFFFFFE) return;
    const std::string& name = userName(*uid);
    if (name.empty()) return;
    out += " (";
    appendOneLine(out, name);
    out += ')';
}

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

void appendOneLine(std::string& out, std::string_view text) {
    std::size_t run = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char u = static_cast<unsigned char>(text[i]);
        if (u >= 0x20 && u != 0x7F && u != '\\') continue;
        out.append(text.data() + run, i - run);
        run = i + 1;
        switch (u) {
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
            default: {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\x%02x", u);
                out += buf;
            }
        }
    }
    out.append(text.data() + run, text.size() - run);
}

std::string oneLine(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    appendOneLine(out, text);
    return out;
}

void appendDisplayText(std::string& out, const JsonValue& value) {
    switch (value.kind) {
        case JsonValue::Kind::String:
            appendOneLine(out, value.text);
            return;
        case JsonValue::Kind::Array:
            if (std::all_of(value.items.begin(), value.items.end(), isScalar)) {
                const std::size_t start = out.size();
                for (const auto& item : value.items) {
                    if (out.size() != start) out += ',';
                    appendDisplayText(out, item);
                }
                if (out.size() == start) out += '-';
                return;
            }
            appendJson(out, value);
            return;
        default:
            appendJson(out, value);
    }
}

std::string displayText(const JsonValue& value) {
    std::string out;
    appendDisplayText(out, value);
    return out;
}

std::string timeText(std::chrono::system_clock::time_point when) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[40];
    const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + n, sizeof text - n, ".%03d", static_cast<int>(ms % 1000));
    return text;
}

std::string renderFields(const JsonValue& object) {
    std::size_t width = 0;
    for (const auto& [key, value] : object.members) width = std::max(width, displayWidth(key));
    std::string out;
    for (const auto& [key, value] : object.members) {
        appendPadded(out, key, width + 2);
        appendShown(out, key, value);
        out += '\n';
    }
    return out;
}

std::string renderTable(const JsonValue& array) {
    TableBuilder table;
    for (const auto& item : array.items) table.add(item);
    return table.render();
}

std::size_t TableBuilder::columnNamed(std::string_view name) {
    const auto found = std::find(columns_.begin(), columns_.end(), name);
    if (found != columns_.end()) return static_cast<std::size_t>(found - columns_.begin());
    columns_.emplace_back(name);
    widths_.push_back(displayWidth(name));
    rowsWith_.push_back(0);
    lastRow_.push_back(0);
    return columns_.size() - 1;
}

void TableBuilder::add(const JsonValue& item) {
    if (item.kind != JsonValue::Kind::Object) {
        addCell(columnNamed("value"), "value", item);
    } else {
        for (std::size_t i = 0; i < item.members.size(); ++i) {
            const JsonMember& member = item.members[i];
            // The items of a list share their keys' order, so the column is almost always the last one's.
            if (i >= columnAt_.size()) columnAt_.push_back(0);
            std::size_t& column = columnAt_[i];
            if (column >= columns_.size() || columns_[column] != member.name) column = columnNamed(member.name);
            addCell(column, member.name, member.value);
        }
    }
    rowEnds_.push_back(cells_.size());
}

void TableBuilder::addCell(std::size_t column, std::string_view key, const JsonValue& value) {
    const std::size_t row = rowEnds_.size() + 1;
    if (lastRow_[column] == row) return;
    lastRow_[column] = row;
    ++rowsWith_[column];
    const std::size_t start = text_.size();
    appendShown(text_, key, value);
    const std::string_view shown(text_.data() + start, text_.size() - start);
    widths_[column] = std::max(widths_[column], displayWidth(shown));
    // A cell comes from one answer frame, far below 4 GiB.
    cells_.push_back({static_cast<std::uint32_t>(column), static_cast<std::uint32_t>(shown.size())});
}

std::string TableBuilder::render() const {
    std::string out;
    if (columns_.empty()) return out;
    const std::size_t rows = rowEnds_.size();
    std::vector<std::size_t> widths = widths_;
    std::size_t lineBytes = 1;
    for (std::size_t c = 0; c < columns_.size(); ++c) {
        if (rowsWith_[c] < rows) widths[c] = std::max<std::size_t>(widths[c], 1);  // "-"
        lineBytes += widths[c] + 2;
    }
    out.reserve(lineBytes * (rows + 1));

    std::vector<std::string_view> line(columns_.begin(), columns_.end());
    auto emit = [&] {
        const std::size_t last = line.size() - 1;
        for (std::size_t c = 0; c < last; ++c) appendPadded(out, line[c], widths[c] + 2);
        out.append(line[last]);
        out += '\n';
    };
    emit();
    std::size_t cell = 0;
    std::size_t offset = 0;
    for (std::size_t end : rowEnds_) {
        std::fill(line.begin(), line.end(), std::string_view("-"));
        for (; cell < end; ++cell) {
            line[cells_[cell].column] = std::string_view(text_).substr(offset, cells_[cell].length);
            offset += cells_[cell].length;
        }
        emit();
    }
    return out;
}

}  // namespace ksctl
