#ifndef KSD_SERVICES_NOTIFIER_SUBSCRIPTION_TABLE_H
#define KSD_SERVICES_NOTIFIER_SUBSCRIPTION_TABLE_H

// Who listens to what: subscriptions keyed by (callback address, callback
// id, owner), so that no user's registration can touch another's; found by
// event name in registration order, counted per owner.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace ksd {

struct SubscriptionKey {
    std::string address;
    std::int32_t callbackId = 0;
    uid_t owner = static_cast<uid_t>(-1);
    bool operator<(const SubscriptionKey& o) const {
        return std::tie(address, callbackId, owner) < std::tie(o.address, o.callbackId, o.owner);
    }
};

struct Subscription {
    std::string event;
    std::uint64_t sequence = 0;
};

class SubscriptionTable {
public:
    enum class AddResult { Added, Replaced, OverLimit };

    // Root is not bound by `maxPerOwner`.
    explicit SubscriptionTable(std::size_t maxPerOwner) : maxPerOwner_(maxPerOwner) {}

    // The same key again replaces the event (and keeps one subscription).
    AddResult add(const SubscriptionKey& key, std::string event);
    bool remove(const SubscriptionKey& key);
    // Removes every subscription of one address, whoever owns it; returns how many.
    std::size_t removeAddress(const std::string& address);

    const Subscription* find(const SubscriptionKey& key) const;
    // Calls fn(key, subscription) for each subscriber of an event, in
    // registration order; fn must not change the table.
    template <typename Fn>
    void forEachSubscriber(std::string_view event, Fn&& fn) const {
        auto ev = byEvent_.find(event);
        if (ev == byEvent_.end()) return;
        for (const auto& [sequence, key] : ev->second) fn(*key, subscriptions_.at(*key));
    }
    bool hasSubscribers(std::string_view event) const { return byEvent_.find(event) != byEvent_.end(); }
    // Calls fn(key, subscription) in registration order from the first
    // sequence after `after` while fn returns true.
    template <typename Fn>
    void forEachAfter(std::uint64_t after, Fn&& fn) const {
        for (auto it = bySequence_.upper_bound(after); it != bySequence_.end(); ++it)
            if (!fn(*it->second, subscriptions_.at(*it->second))) return;
    }
    std::size_t countForAddress(const std::string& address) const;
    std::size_t countForOwner(uid_t owner) const;
    std::size_t size() const { return subscriptions_.size(); }
    const std::map<SubscriptionKey, Subscription>& all() const { return subscriptions_; }

private:
    struct StringHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };
    void unlink(std::map<SubscriptionKey, Subscription>::iterator it);

    std::size_t maxPerOwner_;
    std::uint64_t nextSequence_ = 1;
    std::map<SubscriptionKey, Subscription> subscriptions_;
    // event -> (sequence -> key); the keys point into subscriptions_.
    std::unordered_map<std::string, std::map<std::uint64_t, const SubscriptionKey*>, StringHash, std::equal_to<>>
        byEvent_;
    std::map<std::uint64_t, const SubscriptionKey*> bySequence_;
    std::unordered_map<std::string, std::size_t> perAddress_;
    std::unordered_map<uid_t, std::size_t> perOwner_;
};

}  // namespace ksd

#endif
