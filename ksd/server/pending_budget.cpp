#include "server/pending_budget.h"

#include <utility>

namespace ksd {

bool PendingBudget::mayRead(uid_t uid, bool exempt, bool holding) const {
    if (holding && held_ >= total_) return false;
    return exempt || heldBy(uid) < perUser_;
}

void PendingBudget::hold(uid_t uid, std::size_t bytes) {
    if (bytes == 0) return;
    held_ += bytes;
    perUid_[uid] += bytes;
}

void PendingBudget::release(uid_t uid, std::size_t bytes) {
    if (bytes == 0) return;
    held_ -= bytes;
    auto it = perUid_.find(uid);
    if (it != perUid_.end() && (it->second -= bytes) == 0) perUid_.erase(it);
    if (waiters_.empty()) return;
    // Each woken connection checks again and, still over budget, waits again.
    std::vector<Waiter> woken;
    woken.swap(waiters_);
    for (auto& w : woken)
        if (!w.alive.expired()) w.resume();
}

void PendingBudget::waitForRoom(std::weak_ptr<void> alive, std::function<void()> resume) {
    waiters_.push_back(Waiter{std::move(alive), std::move(resume)});
}

std::size_t PendingBudget::heldBy(uid_t uid) const {
    auto it = perUid_.find(uid);
    return it == perUid_.end() ? 0 : it->second;
}

}  // namespace ksd
