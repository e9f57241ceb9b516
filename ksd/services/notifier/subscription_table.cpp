#include "services/notifier/subscription_table.h"

#include <climits>
#include <cstdint>

namespace ksd {

SubscriptionTable::AddResult SubscriptionTable::add(const SubscriptionKey& key, std::string event) {
    auto it = subscriptions_.find(key);
    if (it != subscriptions_.end()) {
        unlink(it);
        subscriptions_.erase(it);
        add(key, std::move(event));
        return AddResult::Replaced;
    }
    if (key.owner != 0 && countForOwner(key.owner) >= maxPerOwner_) return AddResult::OverLimit;
    auto [pos, inserted] = subscriptions_.emplace(key, Subscription{std::move(event), nextSequence_++});
    (void)inserted;
    byEvent_[pos->second.event].emplace(pos->second.sequence, &pos->first);
    bySequence_.emplace(pos->second.sequence, &pos->first);
    ++perAddress_[key.address];
    ++perOwner_[key.owner];
    return AddResult::Added;
}

void SubscriptionTable::unlink(std::map<SubscriptionKey, Subscription>::iterator it) {
    auto ev = byEvent_.find(it->second.event);
    if (ev != byEvent_.end()) {
        ev->second.erase(it->second.sequence);
        if (ev->second.empty()) byEvent_.erase(ev);
    }
    bySequence_.erase(it->second.sequence);
    auto addr = perAddress_.find(it->first.address);
    if (addr != perAddress_.end() && --addr->second == 0) perAddress_.erase(addr);
    auto own = perOwner_.find(it->first.owner);
    if (own != perOwner_.end() && --own->second == 0) perOwner_.erase(own);
}

bool SubscriptionTable::remove(const SubscriptionKey& key) {
    auto it = subscriptions_.find(key);
    if (it == subscriptions_.end()) return false;
    unlink(it);
    subscriptions_.erase(it);
    return true;
}

std::size_t SubscriptionTable::removeAddress(const std::string& address) {
    std::size_t removed = 0;
    auto it = subscriptions_.lower_bound(SubscriptionKey{address, INT32_MIN, 0});
    while (it != subscriptions_.end() && it->first.address == address) {
        unlink(it);
        it = subscriptions_.erase(it);
        ++removed;
    }
    return removed;
}

const Subscription* SubscriptionTable::find(const SubscriptionKey& key) const {
    auto it = subscriptions_.find(key);
    return it == subscriptions_.end() ? nullptr : &it->second;
}

std::size_t SubscriptionTable::countForAddress(const std::string& address) const {
    auto it = perAddress_.find(address);
    return it == perAddress_.end() ? 0 : it->second;
}

std::size_t SubscriptionTable::countForOwner(uid_t owner) const {
    auto it = perOwner_.find(owner);
    return it == perOwner_.end() ? 0 : it->second;
}

}  // namespace ksd
