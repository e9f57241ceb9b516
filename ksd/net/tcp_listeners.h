#ifndef KSD_NET_TCP_LISTENERS_H
#define KSD_NET_TCP_LISTENERS_H

// Who owns the TCP sockets listening on this machine for an address, as the
// kernel says through NETLINK_SOCK_DIAG: a connect to that address reaches
// one of them.

#include <sys/types.h>

#include <asio/ip/address.hpp>
#include <cstdint>
#include <optional>
#include <vector>

namespace ksd {

// Owners of the listeners bound to `port` on `host` or on a wildcard address
// (in either family, as a v6 socket may take v4 connections); empty optional
// when the kernel could not be asked.
std::optional<std::vector<uid_t>> tcpListenerOwners(const asio::ip::address& host, std::uint16_t port);

}  // namespace ksd

#endif
