#include "server/server.h"

#include <cerrno>
#include <system_error>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "OrvoCodec.h"
#include "OrvoLogging.h"
#include "net/peer_credentials.h"
#include "server/connection.h"

namespace ksd {

namespace {
constexpr std::size_t kReadBufferSize = 64 * 1024;
}

Server::Server(asio::io_context& io, RequestHandler& handler, const ServerLimits& limits)
    : io_(io), handler_(handler), limits_(limits), manager_(limits_), readBuffer_(kReadBufferSize) {}

Server::~Server() { stop(); }

void Server::listenPipe(const std::string& name) {
    const std::string path = isAbstractPipeName(name) ? std::string() : name;
    try {
        listeners_.push_back(std::make_unique<Listener>(io_, pipeEndpoint(name), path,
                                                        [this](GenericSocket s) { onAccept(std::move(s), true); }));
    } catch (const std::system_error& e) {
        // The operator wants to know which pipe, and that another daemon has it.
        if (e.code().value() != EADDRINUSE) throw;
        throw std::system_error(e.code(), "pipe '" + name + "' is taken by another ksd");
    }
}

void Server::listenTcp(std::uint16_t port) {
    auto listener = std::make_unique<Listener>(io_, loopbackTcpEndpoint(port), std::string(),
                                               [this](GenericSocket s) { onAccept(std::move(s), false); });
    const GenericEndpoint local = listener->localEndpoint();
    const auto* in = reinterpret_cast<const sockaddr_in*>(local.data());
    tcpPort_ = ntohs(in->sin_port);
    listeners_.push_back(std::move(listener));
}

void Server::start() {
    for (auto& l : listeners_) l->start();
}

void Server::stop() {
    for (auto& l : listeners_) l->stop();
    manager_.stopAll();
}

void Server::onAccept(GenericSocket socket, bool isUnix) {
    PeerInfo peer;
    peer.isUnix = isUnix;
    peer.connectionId = nextConnectionId_++;
    if (isUnix) {
        if (auto cred = peerCredentials(socket.native_handle())) {
            peer.pid = cred->pid;
            peer.uid = cred->uid;
            peer.gid = cred->gid;
        }
    } else {
        int one = 1;
        ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        // On loopback the kernel knows who owns the client's socket.
        if (auto owner = loopbackPeerOwner(socket.native_handle())) {
            peer.tcpOwnerKnown = true;
            peer.uid = *owner;
        }
    }
    const auto admission = manager_.admit(peer);
    if (admission != ConnectionManager::Admission::Accept) {
        refuse(socket, peer, admission == ConnectionManager::Admission::OverUserLimit);
        return;  // the socket closes as it goes out of scope
    }
    auto connection = std::make_shared<Connection>(std::move(socket), peer, manager_, handler_, limits_, readBuffer_);
    ORVO_LOG(9, "ksd: connection " << static_cast<unsigned long>(peer.connectionId) << " from " << peerText(peer));
    manager_.add(connection);
    connection->start();
}

// A refused connection costs nothing after this: its error value goes out now
// (it fits any socket buffer), and the socket closes without being watched.
void Server::refuse(GenericSocket& socket, const PeerInfo& peer, bool overUserLimit) {
    const int fd = socket.native_handle();
    if (overUserLimit) {
        std::string frame;
        OrvoNet::Codec::putError(
            frame, EDQUOT, "too many connections for this user (limit " + std::to_string(limits_.maxConnectionsPerUser) + ")");
        [[maybe_unused]] const ssize_t sent = ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        ::shutdown(fd, SHUT_WR);
        // Unread request bytes would turn a TCP close into a reset that loses the error value.
        char scratch[4096];
        while (::recv(fd, scratch, sizeof scratch, MSG_DONTWAIT) > 0) {
        }
    }
    if (const auto count = refusals_.refused(peer.uid)) {
        ORVO_LOG(4, "ksd: " << (overUserLimit ? "connection limit of " : "daemon connection cap reached, refused ")
                            << (isIdentified(peer) ? "uid " + std::to_string(peer.uid) : std::string("TCP clients"))
                            << (overUserLimit ? " reached" : "") << " (pid " << static_cast<int>(peer.pid) << "): "
                            << static_cast<unsigned long>(*count) << " connection(s) refused since the last such line");
    }
}

}  // namespace ksd
