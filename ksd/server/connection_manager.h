#ifndef KSD_SERVER_CONNECTION_MANAGER_H
#define KSD_SERVER_CONNECTION_MANAGER_H

// Owns every open connection and counts them per user, so that one user's
// connections cannot crowd out everyone else's. Used on the event loop only.

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <unordered_map>

#include "protocol/request.h"
#include "server/pending_budget.h"
#include "server/server_limits.h"

namespace ksd {

class Connection;

class ConnectionManager {
public:
    enum class Admission { Accept, OverUserLimit, OverTotalLimit };

    explicit ConnectionManager(const ServerLimits& limits)
        : limits_(limits), budget_(limits.maxPendingBytesPerUser, limits.maxPendingBytes) {}

    Admission admit(const PeerInfo& peer) const;
    void add(const std::shared_ptr<Connection>& connection);
    void remove(Connection* connection);
    void stopAll();

    std::size_t size() const { return connections_.size(); }
    std::size_t countForUser(uid_t uid) const;
    PendingBudget& budget() { return budget_; }

private:
    const ServerLimits& limits_;
    PendingBudget budget_;
    std::unordered_map<Connection*, std::shared_ptr<Connection>> connections_;
    std::unordered_map<uid_t, std::size_t> perUser_;
};

}  // namespace ksd

#endif
