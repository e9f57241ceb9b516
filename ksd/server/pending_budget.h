#ifndef KSD_SERVER_PENDING_BUDGET_H
#define KSD_SERVER_PENDING_BUDGET_H

// Bytes held for requests that have begun but are not yet whole, per user and
// in all. A connection whose user is over budget is not read from (back-pressure)
// until bytes are released; root is bound only by the daemon-wide budget.

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

namespace ksd {

class PendingBudget {
public:
    PendingBudget(std::size_t perUser, std::size_t total) : perUser_(perUser), total_(total) {}

    // Whether a connection of this user may read. `exempt` (root) skips the
    // per-user budget; the daemon-wide one stops only requests already begun
    // (`holding`), so that other users' small requests are never slowed.
    bool mayRead(uid_t uid, bool exempt, bool holding) const;
    void hold(uid_t uid, std::size_t bytes);
    // Returns the bytes; every connection waiting for the budget is woken.
    void release(uid_t uid, std::size_t bytes);
    // `resume` runs once, after the next release, unless `alive` has expired by then.
    void waitForRoom(std::weak_ptr<void> alive, std::function<void()> resume);

    std::size_t heldBy(uid_t uid) const;
    std::size_t held() const { return held_; }

private:
    struct Waiter {
        std::weak_ptr<void> alive;
        std::function<void()> resume;
    };
    std::size_t perUser_;
    std::size_t total_;
    std::size_t held_ = 0;
    std::unordered_map<uid_t, std::size_t> perUid_;
    std::vector<Waiter> waiters_;
};

}  // namespace ksd

#endif
