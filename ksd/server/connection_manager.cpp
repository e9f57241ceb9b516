#include "server/connection_manager.h"

#include <vector>

#include "server/connection.h"

namespace ksd {

ConnectionManager::Admission ConnectionManager::admit(const PeerInfo& peer) const {
    const bool root = isRoot(peer);
    const std::size_t cap = root || limits_.maxConnections <= limits_.rootReserve
                                ? limits_.maxConnections
                                : limits_.maxConnections - limits_.rootReserve;
    if (connections_.size() >= cap) return Admission::OverTotalLimit;
    if (!root && countForUser(peer.uid) >= limits_.maxConnectionsPerUser) return Admission::OverUserLimit;
    return Admission::Accept;
}

void ConnectionManager::add(const std::shared_ptr<Connection>& connection) {
    connections_.emplace(connection.get(), connection);
    ++perUser_[connection->peer().uid];
}

void ConnectionManager::remove(Connection* connection) {
    auto it = connections_.find(connection);
    if (it == connections_.end()) return;
    auto user = perUser_.find(connection->peer().uid);
    if (user != perUser_.end() && --user->second == 0) perUser_.erase(user);
    // The caller may be that connection: keep it alive until it returns.
    auto keep = std::move(it->second);
    connections_.erase(it);
}

void ConnectionManager::stopAll() {
    std::vector<std::shared_ptr<Connection>> all;
    all.reserve(connections_.size());
    for (auto& [ptr, connection] : connections_) all.push_back(connection);
    for (auto& c : all) c->stop();
    connections_.clear();
    perUser_.clear();
}

std::size_t ConnectionManager::countForUser(uid_t uid) const {
    auto it = perUser_.find(uid);
    return it == perUser_.end() ? 0 : it->second;
}

}  // namespace ksd
