#ifndef KSD_SERVER_SERVER_H
#define KSD_SERVER_SERVER_H

// The request layer: listeners on the pipe and optional loopback TCP port,
// peer credentials per Unix connection, and the connections they serve.
// Everything runs on one event loop; no thread per client.

#include <asio/io_context.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "server/connection_manager.h"
#include "server/listener.h"
#include "server/refusal_log.h"
#include "server/server_limits.h"
#include "protocol/request_catalog.h"

namespace ksd {

class Server {
public:
    Server(asio::io_context& io, RequestHandler& handler, const ServerLimits& limits);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Throw std::system_error when the address cannot be taken.
    void listenPipe(const std::string& name);
    // Port 0 picks a free one; tcpPort() tells which.
    void listenTcp(std::uint16_t port);
    std::uint16_t tcpPort() const { return tcpPort_; }

    void start();
    // Closes the listeners and every connection.
    void stop();

    std::size_t connectionCount() const { return manager_.size(); }

private:
    void onAccept(GenericSocket socket, bool isUnix);
    void refuse(GenericSocket& socket, const PeerInfo& peer, bool overUserLimit);

    asio::io_context& io_;
    RequestHandler& handler_;
    const ServerLimits& limits_;
    ConnectionManager manager_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    RefusalLog refusals_;
    std::vector<char> readBuffer_;
    std::uint64_t nextConnectionId_ = 1;
    std::uint16_t tcpPort_ = 0;
};

}  // namespace ksd

#endif
