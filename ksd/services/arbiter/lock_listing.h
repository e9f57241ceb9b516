#ifndef KSD_SERVICES_ARBITER_LOCK_LISTING_H
#define KSD_SERVICES_ARBITER_LOCK_LISTING_H

// One held lock as a page of the operator's "locks" listing shows it, the
// same whether one ksd or the cluster holds it.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "json/json_text.h"

namespace ksd {

struct ListedLock {
    std::string_view name;
    std::int64_t handle = 0;
    std::optional<std::int64_t> pid, uid;  // null: a holder not known by its process
    std::optional<std::string_view> node;  // the cluster's locks only
    std::int64_t heldMs = 0;
    std::size_t waiters = 0;
};

// Appends `lock` to `page`, a JSON array opened with '['.
inline void appendListedLock(std::string& page, const ListedLock& lock) {
    const auto number = [](const std::optional<std::int64_t>& n) { return n ? std::to_string(*n) : "null"; };
    if (page.size() > 1) page.push_back(',');
    page += "{\"name\":";
    jsontext::appendString(page, lock.name);
    page +=
        ",\"handle\":" + std::to_string(lock.handle) + ",\"pid\":" + number(lock.pid) + ",\"uid\":" + number(lock.uid);
    if (lock.node) {
        page += ",\"node\":";
        jsontext::appendString(page, *lock.node);
    }
    page += ",\"held_ms\":" + std::to_string(lock.heldMs) + ",\"waiters\":" + std::to_string(lock.waiters) + "}";
}

}  // namespace ksd

#endif
