#ifndef KSD_SERVICES_LIST_PAGE_H
#define KSD_SERVICES_LIST_PAGE_H

// Operator listings answered in pages keyed by a growing number (job id, lock
// handle): "<list>" is the first page, "<list>>N" the page after key N, and an
// empty array ends the list. So every answer fits its frame at any count.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace ksd {

// About this many bytes of JSON per page; one more item may pass it.
inline constexpr std::size_t kListPageBytes = std::size_t{1} << 20;

// The key after which the page asked by `query` starts (0 for the first
// page), or nothing when `query` does not ask for `list`.
inline std::optional<std::int64_t> pageAfter(std::string_view query, std::string_view list) {
    if (query.substr(0, list.size()) != list) return std::nullopt;
    if (query.size() == list.size()) return 0;
    const std::string_view cursor = query.substr(list.size() + 1);
    if (query[list.size()] != '>' || cursor.empty() || cursor.size() > 18) return std::nullopt;
    std::int64_t after = 0;
    for (char c : cursor) {
        if (c < '0' || c > '9') return std::nullopt;
        after = after * 10 + (c - '0');
    }
    return after;
}

}  // namespace ksd

#endif
