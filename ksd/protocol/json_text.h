#ifndef KSD_PROTOCOL_JSON_TEXT_H
#define KSD_PROTOCOL_JSON_TEXT_H

// Writes JSON strings for the operator's queries: quoted and escaped so that
// any byte sequence (names come from clients) yields valid JSON text.

#include <string>
#include <string_view>

namespace ksd {

// Appends `text` as a JSON string literal, quotes included. Bytes that are not
// valid UTF-8 become U+FFFD.
void appendJsonString(std::string& out, std::string_view text);
std::string jsonString(std::string_view text);

}  // namespace ksd

#endif
