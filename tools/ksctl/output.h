#ifndef KSCTL_OUTPUT_H
#define KSCTL_OUTPUT_H

// Human-readable renderings: payload previews, key/value blocks and tables of JSON objects.
// Every function returns text and writes nothing, so callers decide where it goes.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "json.h"

namespace ksctl {

struct PayloadPreview {
    bool printable = false;  // `shown` is the payload's text (else: hex bytes "0a ff ...")
    bool truncated = false;  // only the first `limit` bytes are shown
    std::string shown;
};

// Text when the bytes are valid UTF-8 without control characters other than tab,
// newline and carriage return; otherwise a hex preview. At most `limit` bytes are shown.
PayloadPreview previewPayload(std::string_view bytes, std::size_t limit);

// `text` on one line: newlines, tabs, backslashes and other control bytes escaped C-style.
std::string oneLine(std::string_view text);
void appendOneLine(std::string& out, std::string_view text);

// A scalar as a person reads it: strings bare, numbers and literals as written,
// arrays of scalars comma-separated, anything deeper as compact JSON.
std::string displayText(const JsonValue& value);
void appendDisplayText(std::string& out, const JsonValue& value);

// Local time as "YYYY-MM-DD HH:MM:SS.mmm", the form of ksd's log lines.
std::string timeText(std::chrono::system_clock::time_point when);

// An object as aligned "name  value" lines, in the object's order. A uid
// ("owner_uid", "uid") is followed by its user's name: "1000 (alice)".
std::string renderFields(const JsonValue& object);

// An array of objects as an aligned table: one column per key (first-seen order),
// a header line, one line per object. Items that are not objects get a "value" column.
std::string renderTable(const JsonValue& array);

// The same table built an item at a time, so that a list read in pages need
// not be held whole: only the text of each cell is kept, back to back.
class TableBuilder {
public:
    void add(const JsonValue& item);
    std::string render() const;

private:
    struct Cell {
        std::uint32_t column;
        std::uint32_t length;  // bytes in text_, where the cells lie in order
    };
    std::size_t columnNamed(std::string_view name);
    void addCell(std::size_t column, std::string_view key, const JsonValue& value);

    std::vector<std::string> columns_;  // first-seen order
    std::vector<std::size_t> widths_;
    std::vector<std::size_t> rowsWith_;  // rows that have a cell in the column (the others show "-")
    std::vector<std::size_t> lastRow_;   // 1 + the last row with a cell there: a repeated key keeps its first value
    std::vector<std::size_t> columnAt_;  // the column of each member position in the last object, tried first
    std::vector<Cell> cells_;
    std::vector<std::size_t> rowEnds_;  // one past each row's last cell
    std::string text_;
};

}  // namespace ksctl

#endif
