#ifndef KSD_SERVICES_NOTIFIER_PUSH_BUDGET_H
#define KSD_SERVICES_NOTIFIER_PUSH_BUDGET_H

// Bytes queued for push, counted per subscription owner across all callback
// addresses: one user's many slow subscribers cost the daemon at most its
// budget, whatever the bound of each address. Root is not bound.

#include <sys/types.h>

#include <cstddef>
#include <unordered_map>

namespace ksd {

class PushBudget {
public:
    explicit PushBudget(std::size_t perUser) : perUser_(perUser) {}

    // Charges `bytes` to `owner`; false (and nothing charged) over the budget.
    bool take(uid_t owner, std::size_t bytes) {
        if (owner == 0) return true;
        std::size_t& used = used_[owner];
        if (used + bytes > perUser_) {
            if (used == 0) used_.erase(owner);
            return false;
        }
        used += bytes;
        return true;
    }
    void give(uid_t owner, std::size_t bytes) {
        if (owner == 0) return;
        auto it = used_.find(owner);
        if (it == used_.end()) return;
        it->second -= bytes < it->second ? bytes : it->second;
        if (it->second == 0) used_.erase(it);
    }
    std::size_t used(uid_t owner) const {
        auto it = used_.find(owner);
        return it == used_.end() ? 0 : it->second;
    }

private:
    std::size_t perUser_;
    std::unordered_map<uid_t, std::size_t> used_;
};

}  // namespace ksd

#endif
