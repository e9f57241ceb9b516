#ifndef KSD_NET_ENDPOINTS_H
#define KSD_NET_ENDPOINTS_H

// Socket addresses as the wire names them: a pipe name without '/' is an
// abstract Unix name (exact address length), with '/' a socket path.

#include <asio/generic/stream_protocol.hpp>
#include <cstdint>
#include <string>
#include <string_view>

namespace ksd {

using GenericEndpoint = asio::generic::stream_protocol::endpoint;
using GenericSocket = asio::generic::stream_protocol::socket;

// Throws std::system_error (ENAMETOOLONG) when the name does not fit.
GenericEndpoint pipeEndpoint(std::string_view name);
bool isAbstractPipeName(std::string_view name);
GenericEndpoint loopbackTcpEndpoint(std::uint16_t port);

}  // namespace ksd

#endif
