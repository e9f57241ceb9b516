// Peer identity of local stream sockets.
#include "OrvoPeerCredentials.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace OrvoNet {

namespace {

std::atomic<long> g_nDaemonUid{-1};

// Asks sock_diag for the socket whose local end is our peer's address and
// whose remote end is ours: on loopback that is the peer's own socket.
bool tcpPeerUid(int fd, long& nUid) {
    sockaddr_storage local{}, peer{};
    socklen_t nLocal = sizeof local, nPeer = sizeof peer;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &nLocal) != 0 ||
        ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &nPeer) != 0 || local.ss_family != peer.ss_family)
        return false;

    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } query{};
    query.header.nlmsg_len = sizeof query;
    query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    query.header.nlmsg_flags = NLM_F_REQUEST;
    inet_diag_req_v2& r = query.request;
    r.sdiag_family = static_cast<__u8>(local.ss_family);
    r.sdiag_protocol = IPPROTO_TCP;
    r.idiag_states = ~0u;
    r.id.idiag_cookie[0] = r.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    if (local.ss_family == AF_INET) {
        const auto& l = reinterpret_cast<const sockaddr_in&>(local);
        const auto& p = reinterpret_cast<const sockaddr_in&>(peer);
        r.id.idiag_sport = p.sin_port;
        r.id.idiag_dport = l.sin_port;
        std::memcpy(r.id.idiag_src, &p.sin_addr, sizeof p.sin_addr);
        std::memcpy(r.id.idiag_dst, &l.sin_addr, sizeof l.sin_addr);
    } else if (local.ss_family == AF_INET6) {
        const auto& l = reinterpret_cast<const sockaddr_in6&>(local);
        const auto& p = reinterpret_cast<const sockaddr_in6&>(peer);
        r.id.idiag_sport = p.sin6_port;
        r.id.idiag_dport = l.sin6_port;
        std::memcpy(r.id.idiag_src, &p.sin6_addr, sizeof p.sin6_addr);
        std::memcpy(r.id.idiag_dst, &l.sin6_addr, sizeof l.sin6_addr);
    } else {
        return false;
    }

    const int nl = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (nl < 0) return false;
    bool bFound = false;
    if (::send(nl, &query, sizeof query, 0) == static_cast<ssize_t>(sizeof query)) {
        alignas(nlmsghdr) char reply[8192];
        ssize_t n;
        do n = ::recv(nl, reply, sizeof reply, 0);
        while (n < 0 && errno == EINTR);
        for (auto* h = reinterpret_cast<nlmsghdr*>(reply); n > 0 && NLMSG_OK(h, static_cast<unsigned>(n));
             h = NLMSG_NEXT(h, n)) {
            if (h->nlmsg_type != SOCK_DIAG_BY_FAMILY || h->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) break;
            nUid = static_cast<long>(static_cast<const inet_diag_msg*>(NLMSG_DATA(h))->idiag_uid);
            bFound = true;
            break;
        }
    }
    ::close(nl);
    return bFound;
}

}  // namespace

bool peerCredentials(int fd, OrvoPeerCredentials& credentials) {
    sockaddr_storage local{};
    socklen_t nLocal = sizeof local;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &nLocal) != 0) return false;
    if (local.ss_family == AF_UNIX) return unixPeerCredentials(fd, credentials);
    credentials.m_nPid = -1;
    return tcpPeerUid(fd, credentials.m_nUid);
}

bool unixPeerCredentials(int fd, OrvoPeerCredentials& credentials) {
    ucred cred{};
    socklen_t nLen = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &nLen) != 0) return false;
    credentials.m_nPid = cred.pid;
    credentials.m_nUid = static_cast<long>(cred.uid);
    return true;
}

bool isTrustedDaemonUid(long nUid) {
    if (nUid == 0 || nUid == static_cast<long>(::geteuid())) return true;
    const char* pszNamed = std::getenv("KSINTF_DAEMON_UID");
    if (pszNamed == nullptr || *pszNamed == '\0') return false;
    char* pszEnd = nullptr;
    const long nNamed = std::strtol(pszNamed, &pszEnd, 10);
    return *pszEnd == '\0' && nNamed >= 0 && nNamed == nUid;
}

long daemonUid() { return g_nDaemonUid.load(); }

void noteDaemonUid(long nUid) { g_nDaemonUid.store(nUid); }

}  // namespace OrvoNet
