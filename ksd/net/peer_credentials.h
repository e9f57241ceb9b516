#ifndef KSD_NET_PEER_CREDENTIALS_H
#define KSD_NET_PEER_CREDENTIALS_H

// The identity of the process at the other end of a Unix socket (SO_PEERCRED)
// or of the user at the other end of a loopback TCP one, as the kernel vouches for it.

#include <sys/types.h>

#include <optional>

namespace ksd {

struct Credentials {
    pid_t pid;
    uid_t uid;
    gid_t gid;
};

// Empty when the socket is not a connected Unix socket.
std::optional<Credentials> peerCredentials(int fd);

// The user owning the other end of a loopback TCP connection, as the kernel
// tells it (NETLINK_SOCK_DIAG); empty when it does not.
std::optional<uid_t> loopbackPeerOwner(int fd);

}  // namespace ksd

#endif
