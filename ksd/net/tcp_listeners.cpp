#include "net/tcp_listeners.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace ksd {

namespace {

using Bytes16 = std::array<unsigned char, 16>;

// The address bytes as inet_diag reports them for one family.
Bytes16 diagBytes(const asio::ip::address& a) {
    Bytes16 out{};
    if (a.is_v4()) {
        const auto b = a.to_v4().to_bytes();
        std::memcpy(out.data(), b.data(), b.size());
    } else {
        const auto b = a.to_v6().to_bytes();
        std::memcpy(out.data(), b.data(), b.size());
    }
    return out;
}

bool reaches(int family, const unsigned char* bound, const asio::ip::address& host) {
    static const Bytes16 zero{};
    if (family == AF_INET) {
        if (std::memcmp(bound, zero.data(), 4) == 0) return true;
        return host.is_v4() && std::memcmp(bound, diagBytes(host).data(), 4) == 0;
    }
    if (std::memcmp(bound, zero.data(), 16) == 0) return true;
    if (host.is_v6()) return std::memcmp(bound, diagBytes(host).data(), 16) == 0;
    const auto mapped = asio::ip::make_address_v6(asio::ip::v4_mapped, host.to_v4()).to_bytes();
    return std::memcmp(bound, mapped.data(), 16) == 0;
}

// Dumps the listeners of one family; false when the kernel did not answer whole.
bool dumpListeners(int nl, int family, const asio::ip::address& host, std::uint16_t port, std::vector<uid_t>& owners) {
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } query{};
    query.header.nlmsg_len = sizeof query;
    query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    query.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    query.request.sdiag_family = static_cast<__u8>(family);
    query.request.sdiag_protocol = IPPROTO_TCP;
    query.request.idiag_states = 1u << TCP_LISTEN;
    if (::send(nl, &query, sizeof query, 0) != static_cast<ssize_t>(sizeof query)) return false;
    alignas(nlmsghdr) char reply[16384];
    for (;;) {
        ssize_t n;
        do n = ::recv(nl, reply, sizeof reply, 0);
        while (n < 0 && errno == EINTR);
        if (n <= 0) return false;
        for (auto* h = reinterpret_cast<nlmsghdr*>(reply); NLMSG_OK(h, static_cast<unsigned>(n));
             h = NLMSG_NEXT(h, n)) {
            if (h->nlmsg_type == NLMSG_DONE) return true;
            if (h->nlmsg_type == NLMSG_ERROR) return false;
            if (h->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) continue;
            const auto* msg = static_cast<const inet_diag_msg*>(NLMSG_DATA(h));
            if (ntohs(msg->id.idiag_sport) != port) continue;
            if (reaches(family, reinterpret_cast<const unsigned char*>(msg->id.idiag_src), host))
                owners.push_back(static_cast<uid_t>(msg->idiag_uid));
        }
    }
}

}  // namespace

std::optional<std::vector<uid_t>> tcpListenerOwners(const asio::ip::address& address, std::uint16_t port) {
    asio::ip::address host = address;
    if (host.is_v6() && host.to_v6().is_v4_mapped())
        host = asio::ip::make_address_v4(asio::ip::v4_mapped, host.to_v6());
    const int nl = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (nl < 0) return std::nullopt;
    std::vector<uid_t> owners;
    bool whole = dumpListeners(nl, AF_INET6, host, port, owners);
    if (whole && host.is_v4()) whole = dumpListeners(nl, AF_INET, host, port, owners);
    ::close(nl);
    if (!whole) return std::nullopt;
    return owners;
}

}  // namespace ksd
