#include "net/peer_credentials.h"

#include <sys/socket.h>

namespace ksd {

std::optional<Credentials> peerCredentials(int fd) {
    struct ucred cred {};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) return std::nullopt;
    return Credentials{cred.pid, cred.uid, cred.gid};
}

}  // namespace ksd
