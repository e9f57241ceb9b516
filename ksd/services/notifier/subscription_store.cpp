#include "services/notifier/subscription_store.h"

#include "store/schema.h"

namespace ksd {

SubscriptionStore::SubscriptionStore(const std::filesystem::path& stateDir) : db_(store::openStateDatabase(stateDir)) {
    // The notifier's own table; IF NOT EXISTS keeps this idempotent. A key
    // holds its owner, so two users never share a row.
    store::Transaction transaction(*db_);
    db_->exec(
        "CREATE TABLE IF NOT EXISTS owned_subscriptions ("
        "  address TEXT NOT NULL, callback_id INTEGER NOT NULL, owner INTEGER NOT NULL, event TEXT NOT NULL,"
        "  seq INTEGER PRIMARY KEY AUTOINCREMENT, UNIQUE(address, callback_id, owner));");
    // Rows of the former table, one per (address, id), move over in their order.
    auto& old = db_->cached("SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = 'subscriptions'");
    const bool hasOld = old.step() && old.columnInt(0) != 0;
    old.reset();
    if (hasOld)
        db_->exec(
            "INSERT OR IGNORE INTO owned_subscriptions(address, callback_id, owner, event)"
            "  SELECT address, callback_id, owner, event FROM subscriptions ORDER BY seq;"
            "DROP TABLE subscriptions;");
    transaction.commit();
}

SubscriptionStore::~SubscriptionStore() = default;

std::vector<StoredSubscription> SubscriptionStore::loadAll() {
    std::vector<StoredSubscription> all;
    auto& s = db_->cached("SELECT address, callback_id, owner, event FROM owned_subscriptions ORDER BY seq");
    while (s.step()) {
        StoredSubscription sub;
        sub.key.address = s.columnText(0);
        sub.key.callbackId = static_cast<std::int32_t>(s.columnInt(1));
        sub.key.owner = static_cast<uid_t>(s.columnInt(2));
        sub.event = s.columnText(3);
        all.push_back(std::move(sub));
    }
    s.reset();
    return all;
}

void SubscriptionStore::put(const SubscriptionKey& key, const std::string& event) {
    // A new event for a key keeps its place in the delivery order, as in memory.
    db_->cached(
           "INSERT INTO owned_subscriptions(address, callback_id, owner, event) VALUES (?1, ?2, ?3, ?4)"
           " ON CONFLICT(address, callback_id, owner) DO UPDATE SET event = excluded.event")
        .bind(1, std::string_view(key.address))
        .bind(2, static_cast<std::int64_t>(key.callbackId))
        .bind(3, static_cast<std::int64_t>(key.owner))
        .bind(4, std::string_view(event))
        .run();
}

void SubscriptionStore::erase(const SubscriptionKey& key) {
    db_->cached("DELETE FROM owned_subscriptions WHERE address = ?1 AND callback_id = ?2 AND owner = ?3")
        .bind(1, std::string_view(key.address))
        .bind(2, static_cast<std::int64_t>(key.callbackId))
        .bind(3, static_cast<std::int64_t>(key.owner))
        .run();
}

void SubscriptionStore::eraseAddress(const std::string& address) {
    db_->cached("DELETE FROM owned_subscriptions WHERE address = ?1").bind(1, std::string_view(address)).run();
}

}  // namespace ksd
