#ifndef KSD_NET_PEER_CREDENTIALS_H
#define KSD_NET_PEER_CREDENTIALS_H

// The identity of the process at the other end of a Unix socket, as the
// kernel vouches for it (SO_PEERCRED).

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

}  // namespace ksd

#endif
