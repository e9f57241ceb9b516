#include "server/refusal_log.h"

namespace ksd {

std::optional<std::size_t> RefusalLog::refused(uid_t uid, Clock::time_point now) {
    auto [it, first] = entries_.try_emplace(uid);
    Entry& e = it->second;
    ++e.unlogged;
    if (!first && now - e.lastLine < interval_) return std::nullopt;
    e.lastLine = now;
    const std::size_t count = e.unlogged;
    e.unlogged = 0;
    // Users that stop being refused do not stay in the table for ever.
    if (entries_.size() > 4096) {
        for (auto i = entries_.begin(); i != entries_.end();)
            i = now - i->second.lastLine >= interval_ && i->second.unlogged == 0 ? entries_.erase(i) : std::next(i);
    }
    return count;
}

}  // namespace ksd
