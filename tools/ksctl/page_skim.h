#ifndef KSCTL_PAGE_SKIM_H
#define KSCTL_PAGE_SKIM_H

// The key of a list page's last item, found without parsing the page, so that
// the next page can be asked for while this one is still being read. Only a
// guess: nothing is validated, and the caller checks it against the parse.

#include <cstdint>
#include <optional>
#include <string_view>

namespace ksctl {

// The integer member `key` of the last object in the JSON array `page`, as
// written (no escapes in the key); nothing when the page is empty, not an
// array of objects, or its last item has no such integer member.
std::optional<std::int64_t> skimLastKey(std::string_view page, std::string_view key);

}  // namespace ksctl

#endif
