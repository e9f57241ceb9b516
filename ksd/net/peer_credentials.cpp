#include "net/peer_credentials.h"

#include <sys/socket.h>

#include "OrvoPeerCredentials.h"

namespace ksd {

std::optional<Credentials> peerCredentials(int fd) {
    struct ucred cred {};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) return std::nullopt;
    return Credentials{cred.pid, cred.uid, cred.gid};
}

std::optional<uid_t> loopbackPeerOwner(int fd) {
    OrvoNet::OrvoPeerCredentials cred;
    if (!OrvoNet::peerCredentials(fd, cred) || cred.m_nUid < 0) return std::nullopt;
    return static_cast<uid_t>(cred.m_nUid);
}

}  // namespace ksd
