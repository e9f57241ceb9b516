#ifndef KSD_SERVICES_NOTIFIER_CALLBACK_ADDRESS_H
#define KSD_SERVICES_NOTIFIER_CALLBACK_ADDRESS_H

// A subscriber's callback address ("pipe:<name>" or "socket:<host>:<port>"),
// parsed and checked to lie on this machine: the daemon never connects out.

#include <asio/ip/address.hpp>
#include <cstdint>
#include <string>
#include <string_view>

#include "net/endpoints.h"

namespace ksd {

struct CallbackAddress {
    enum class Kind { Pipe, Tcp };
    Kind kind = Kind::Pipe;
    std::string pipeName;
    asio::ip::address host;
    std::uint16_t port = 0;

    GenericEndpoint endpoint() const;
};

enum class AddressCheck { Ok, Malformed, NotLocal };

// Host names are not resolved (that would block the loop): only empty,
// "localhost" and loopback literals are local.
AddressCheck parseCallbackAddress(std::string_view text, CallbackAddress& out);

}  // namespace ksd

#endif
