#ifndef KSD_SERVER_LISTENER_H
#define KSD_SERVER_LISTENER_H

// Accepts stream connections on one address (abstract Unix name, socket
// path, or loopback TCP) and hands each to a callback; survives running out
// of descriptors by pausing instead of spinning.

#include <asio/basic_socket_acceptor.hpp>
#include <asio/generic/stream_protocol.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <string>

#include "net/endpoints.h"

namespace ksd {

class Listener {
public:
    using AcceptHandler = std::function<void(GenericSocket socket)>;

    // Binds and listens at once; throws std::system_error when the address is taken.
    // `socketPath` non-empty: a filesystem socket to replace if stale and remove at stop.
    Listener(asio::io_context& io, const GenericEndpoint& endpoint, std::string socketPath, AcceptHandler onAccept);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    void start();
    void stop();
    GenericEndpoint localEndpoint() const;

private:
    void accept();

    asio::basic_socket_acceptor<asio::generic::stream_protocol> acceptor_;
    asio::steady_timer retry_;
    std::string socketPath_;
    AcceptHandler onAccept_;
    bool stopped_ = false;
};

}  // namespace ksd

#endif
