#ifndef KSD_SERVICES_NOTIFIER_SUBSCRIPTION_STORE_H
#define KSD_SERVICES_NOTIFIER_SUBSCRIPTION_STORE_H

// The subscriptions as stored in the state database, so that a restarted
// daemon goes on delivering to the same callback addresses. Loaded once in
// registration order; every change written before the reply. Throws StoreError.

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "services/notifier/subscription_table.h"
#include "store/database.h"

namespace ksd {

struct StoredSubscription {
    SubscriptionKey key;
    std::string event;
};

class SubscriptionStore {
public:
    explicit SubscriptionStore(const std::filesystem::path& stateDir);
    ~SubscriptionStore();

    std::vector<StoredSubscription> loadAll();
    void put(const SubscriptionKey& key, const std::string& event);
    void erase(const SubscriptionKey& key);
    void eraseAddress(const std::string& address);

private:
    std::shared_ptr<store::Database> db_;
};

}  // namespace ksd

#endif
