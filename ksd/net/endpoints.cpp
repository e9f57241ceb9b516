#include "net/endpoints.h"

#include <asio/ip/tcp.hpp>
#include <asio/local/stream_protocol.hpp>

namespace ksd {

bool isAbstractPipeName(std::string_view name) { return name.find('/') == std::string_view::npos; }

GenericEndpoint pipeEndpoint(std::string_view name) {
    if (!isAbstractPipeName(name)) return GenericEndpoint(asio::local::stream_protocol::endpoint(name));
    std::string path(1, '\0');
    path.append(name);
    return GenericEndpoint(asio::local::stream_protocol::endpoint(path));
}

GenericEndpoint loopbackTcpEndpoint(std::uint16_t port) {
    return GenericEndpoint(asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), port));
}

}  // namespace ksd
