#include "raw_server.h"

#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace ksbench {

namespace {

bool readFully(int fd, char* p, std::size_t n) {
    while (n > 0) {
        const ssize_t got = ::read(fd, p, n);
        if (got <= 0) return false;
        p += got;
        n -= static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace

RawServer::RawServer(std::string request, std::string reply)
    : name_("ksbench-raw-" + std::to_string(::getpid()) + "-" + std::to_string(reinterpret_cast<std::uintptr_t>(this))),
      request_(std::move(request)),
      reply_(std::move(reply)) {
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    const socklen_t len = address(addr);
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        ::listen(listenFd_, 4096) != 0)
        throw std::runtime_error("raw server: cannot listen");
    child_ = ::fork();
    if (child_ < 0) throw std::runtime_error("raw server: cannot fork");
    if (child_ == 0) {
        serve();
        ::_exit(0);
    }
}

RawServer::~RawServer() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
    ::close(listenFd_);
}

socklen_t RawServer::address(sockaddr_un& addr) const {
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path + 1, name_.data(), name_.size());
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name_.size());
}

// In the forked child: nothing here allocates once the loop runs.
void RawServer::serve() {
    const int epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    std::vector<std::size_t> got(1 << 16);  // bytes of the request under way, by descriptor
    std::vector<char> buf(64 * 1024);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = listenFd_;
    ::epoll_ctl(epollFd, EPOLL_CTL_ADD, listenFd_, &ev);
    // Reads what is there, answers each whole request, closes at the end.
    auto onReadable = [&](int fd) {
        for (;;) {
            const ssize_t n = ::read(fd, buf.data(), buf.size());
            if (n < 0 && errno == EAGAIN) return;
            if (n <= 0) {
                ::close(fd);
                return;
            }
            std::size_t& have = got[static_cast<std::size_t>(fd)];
            have += static_cast<std::size_t>(n);
            for (; have >= request_.size(); have -= request_.size())
                (void)!::send(fd, reply_.data(), reply_.size(), MSG_NOSIGNAL);
        }
    };
    epoll_event events[64];
    for (;;) {
        const int n = ::epoll_wait(epollFd, events, 64, -1);
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd != listenFd_) {
                onReadable(fd);
                continue;
            }
            for (;;) {
                const int c = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
                if (c < 0) break;
                if (static_cast<std::size_t>(c) >= got.size()) {
                    ::close(c);
                    continue;
                }
                got[static_cast<std::size_t>(c)] = 0;
                ev.data.fd = c;
                ::epoll_ctl(epollFd, EPOLL_CTL_ADD, c, &ev);
                onReadable(c);
            }
        }
    }
}

bool rawConnectPerRequest(const RawServer& server) {
    sockaddr_un addr;
    const socklen_t len = server.address(addr);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    char reply[256];
    const bool ok = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
                    ::send(fd, server.request().data(), server.request().size(), MSG_NOSIGNAL) ==
                        static_cast<ssize_t>(server.request().size()) &&
                    readFully(fd, reply, server.reply().size());
    if (fd >= 0) ::close(fd);
    return ok;
}

int rawConnect(const RawServer& server) {
    sockaddr_un addr;
    const socklen_t len = server.address(addr);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

bool rawPingPong(int fd, const RawServer& server) {
    char reply[256];
    return ::send(fd, server.request().data(), server.request().size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(server.request().size()) &&
           readFully(fd, reply, server.reply().size());
}

}  // namespace ksbench
