#include "server/listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "OrvoLogging.h"

namespace ksd {

namespace {

// A socket file left by a daemon that died: nobody accepts on it.
void removeStaleSocket(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return;
    if (!S_ISSOCK(st.st_mode)) throw std::system_error(EEXIST, std::generic_category(), path + " is not a socket");
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "socket");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    const bool inUse = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    if (inUse) throw std::system_error(EADDRINUSE, std::generic_category(), path);
    ::unlink(path.c_str());
}

bool outOfDescriptors(const std::error_code& ec) {
    const int v = ec.value();
    return v == EMFILE || v == ENFILE || v == ENOBUFS || v == ENOMEM;
}

}  // namespace

Listener::Listener(asio::io_context& io, const GenericEndpoint& endpoint, std::string socketPath,
                   AcceptHandler onAccept)
    : acceptor_(io), retry_(io), socketPath_(std::move(socketPath)), onAccept_(std::move(onAccept)) {
    if (!socketPath_.empty()) removeStaleSocket(socketPath_);
    acceptor_.open(endpoint.protocol());
    if (endpoint.protocol().family() != AF_UNIX) acceptor_.set_option(asio::socket_base::reuse_address(true));
    acceptor_.bind(endpoint);
    // Every local user may connect; the daemon identifies each by its credentials.
    if (!socketPath_.empty()) ::chmod(socketPath_.c_str(), 0666);
    acceptor_.listen(asio::socket_base::max_listen_connections);
}

Listener::~Listener() { stop(); }

void Listener::start() { accept(); }

void Listener::stop() {
    if (stopped_) return;
    stopped_ = true;
    std::error_code ignored;
    acceptor_.close(ignored);
    retry_.cancel();
    if (!socketPath_.empty()) ::unlink(socketPath_.c_str());
}

GenericEndpoint Listener::localEndpoint() const { return acceptor_.local_endpoint(); }

void Listener::accept() {
    acceptor_.async_accept([this](const std::error_code& ec, GenericSocket socket) {
        if (stopped_ || ec == asio::error::operation_aborted) return;
        if (!ec) {
            onAccept_(std::move(socket));
            accept();
            return;
        }
        if (outOfDescriptors(ec)) {
            ORVO_LOG(1, "ksd: accept: " << ec.message() << "; pausing new connections");
            retry_.expires_after(std::chrono::milliseconds(100));
            retry_.async_wait([this](const std::error_code& waitEc) {
                if (!waitEc && !stopped_) accept();
            });
            return;
        }
        accept();
    });
}

}  // namespace ksd
