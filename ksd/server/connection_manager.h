#ifndef KSD_SERVER_CONNECTION_MANAGER_H
#define KSD_SERVER_CONNECTION_MANAGER_H

// Owns every open connection and counts them per user, so that one user's
// connections cannot crowd out everyone else's. Used on the event loop only.

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <unordered_map>

#include "server/server_limits.h"
#include "protocol/request.h"

namespace ksd {

class Connection;

class ConnectionManager {
public:
    enum class Admission { Accept, OverUserLimit, OverTotalLimit };

    explicit ConnectionManager(const ServerLimits& limits) : limits_(limits) {}

    Admission admit(const PeerInfo& peer) const;
    // `counted`: the connection counts against its user's limit.
    void add(const std::shared_ptr<Connection>& connection, bool counted);
    void remove(Connection* connection);
    void stopAll();

    std::size_t size() const { return connections_.size(); }
    std::size_t countForUser(uid_t uid) const;

private:
    struct Entry {
        std::shared_ptr<Connection> connection;
        bool counted;
    };
    const ServerLimits& limits_;
    std::unordered_map<Connection*, Entry> connections_;
    std::unordered_map<uid_t, std::size_t> perUser_;
};

}  // namespace ksd

#endif
