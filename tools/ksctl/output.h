#ifndef KSCTL_OUTPUT_H
#define KSCTL_OUTPUT_H

// Human-readable renderings: payload previews, key/value blocks and tables of JSON objects.
// Every function returns text and writes nothing, so callers decide where it goes.

#include <cstddef>
#include <string>
#include <string_view>

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

// A scalar as a person reads it: strings bare, numbers and literals as written,
// arrays of scalars comma-separated, anything deeper as compact JSON.
std::string displayText(const JsonValue& value);

// An object as aligned "name  value" lines, in the object's order.
std::string renderFields(const JsonValue& object);

// An array of objects as an aligned table: one column per key (first-seen order),
// a header line, one line per object. Items that are not objects get a "value" column.
std::string renderTable(const JsonValue& array);

}  // namespace ksctl

#endif
