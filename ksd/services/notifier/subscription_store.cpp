#include "services/notifier/subscription_store.h"

#include "store/schema.h"

namespace ksd {

SubscriptionStore::SubscriptionStore(const std::filesystem::path& stateDir)
    : db_(store::openStateDatabase(stateDir)) {
    // The notifier's own table; IF NOT EXISTS keeps this idempotent.
    db_->exec(
        "CREATE TABLE IF NOT EXISTS subscriptions ("
        "  address TEXT NOT NULL, callback_id INTEGER NOT NULL, event TEXT NOT NULL,"
        "  owner INTEGER NOT NULL, seq INTEGER PRIMARY KEY AUTOINCREMENT,"
        "  UNIQUE(address, callback_id));");
}

SubscriptionStore::~SubscriptionStore() = default;

std::vector<StoredSubscription> SubscriptionStore::loadAll() {
    std::vector<StoredSubscription> all;
    auto& s = db_->cached("SELECT address, callback_id, event, owner FROM subscriptions ORDER BY seq");
    while (s.step()) {
        StoredSubscription sub;
        sub.key.address = s.columnText(0);
        sub.key.callbackId = static_cast<std::int32_t>(s.columnInt(1));
        sub.event = s.columnText(2);
        sub.owner = static_cast<uid_t>(s.columnInt(3));
        all.push_back(std::move(sub));
    }
    s.reset();
    return all;
}

void SubscriptionStore::put(const SubscriptionKey& key, const std::string& event, uid_t owner) {
    // A new event for a key keeps its place in the delivery order, as in memory.
    db_->cached(
           "INSERT INTO subscriptions(address, callback_id, event, owner) VALUES (?1, ?2, ?3, ?4)"
           " ON CONFLICT(address, callback_id) DO UPDATE SET event = excluded.event, owner = excluded.owner")
        .bind(1, std::string_view(key.address))
        .bind(2, static_cast<std::int64_t>(key.callbackId))
        .bind(3, std::string_view(event))
        .bind(4, static_cast<std::int64_t>(owner))
        .run();
}

void SubscriptionStore::erase(const SubscriptionKey& key) {
    db_->cached("DELETE FROM subscriptions WHERE address = ?1 AND callback_id = ?2")
        .bind(1, std::string_view(key.address))
        .bind(2, static_cast<std::int64_t>(key.callbackId))
        .run();
}

void SubscriptionStore::eraseAddress(const std::string& address) {
    db_->cached("DELETE FROM subscriptions WHERE address = ?1").bind(1, std::string_view(address)).run();
}

}  // namespace ksd
