#ifndef KSD_SERVICES_NOTIFIER_SUBSCRIPTION_TABLE_H
#define KSD_SERVICES_NOTIFIER_SUBSCRIPTION_TABLE_H

// Who listens to what: subscriptions keyed by (callback address, callback
// id), found by event name in registration order, counted per owner.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace ksd {

struct SubscriptionKey {
    std::string address;
    std::int32_t callbackId = 0;
    bool operator<(const SubscriptionKey& o) const {
        return address != o.address ? address < o.address : callbackId < o.callbackId;
    }
};

struct Subscription {
    std::string event;
    uid_t owner = static_cast<uid_t>(-1);
    std::uint64_t sequence = 0;
};

class SubscriptionTable {
public:
    enum class AddResult { Added, Replaced, OverLimit };

    explicit SubscriptionTable(std::size_t maxPerOwner) : maxPerOwner_(maxPerOwner) {}

    // The same key again replaces the event (and keeps one subscription).
    AddResult add(const SubscriptionKey& key, std::string event, uid_t owner);
    bool remove(const SubscriptionKey& key);
    // Removes every subscription of one address; returns how many.
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
    std::unordered_map<std::string, std::size_t> perAddress_;
    std::unordered_map<uid_t, std::size_t> perOwner_;
};

}  // namespace ksd

#endif
