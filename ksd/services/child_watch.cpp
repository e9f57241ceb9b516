#include "services/child_watch.h"

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <chrono>

namespace ksd {

struct ChildWatch::Child {
    Child(asio::io_context& io, int pidfd) : pidfd(io, pidfd), again(io) {}
    asio::posix::stream_descriptor pidfd;
    asio::steady_timer again;
    OnExit onExit;
};

ChildWatch::ChildWatch(asio::io_context& io) : io_(io) {}

ChildWatch::~ChildWatch() = default;

bool ChildWatch::watch(pid_t pid, OnExit onExit) {
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0) {
        // Cannot watch it: it must not become a zombie nobody reaps.
        const int error = errno;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        errno = error;
        return false;
    }
    auto child = std::make_unique<Child>(io_, pidfd);
    child->onExit = std::move(onExit);
    std::weak_ptr<char> alive = alive_;
    child->pidfd.async_wait(asio::posix::stream_descriptor::wait_read, [this, alive, pid](const std::error_code& ec) {
        if (ec || alive.expired()) return;
        finished(pid);
    });
    children_.emplace(pid, std::move(child));
    return true;
}

void ChildWatch::killAll() {
    for (auto& [pid, child] : children_) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    children_.clear();
}

void ChildWatch::finished(pid_t pid) {
    auto it = children_.find(pid);
    if (it == children_.end()) return;
    siginfo_t info{};
    // A pidfd can turn readable a moment before its child can be reaped (seen
    // on Linux 6.18): the status is asked again shortly, never guessed.
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG) == 0 && info.si_pid == 0) {
        it->second->again.expires_after(std::chrono::milliseconds(1));
        it->second->again.async_wait([this, alive = std::weak_ptr<char>(alive_), pid](const std::error_code& ec) {
            if (!ec && !alive.expired()) finished(pid);
        });
        return;
    }
    if (info.si_pid != pid) info = {};
    std::unique_ptr<Child> child = std::move(it->second);
    children_.erase(it);
    child->onExit(info);
}

}  // namespace ksd
