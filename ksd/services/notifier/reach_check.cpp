#include "services/notifier/reach_check.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <fstream>
#include <sstream>

namespace ksd {

UserIdentity identityOf(const PeerInfo& peer) {
    UserIdentity who{peer.uid, peer.gid, {}};
    std::ifstream status("/proc/" + std::to_string(peer.pid) + "/status");
    std::string line;
    bool sameUser = false;
    std::vector<gid_t> groups;
    while (std::getline(status, line)) {
        std::istringstream fields(line);
        std::string label;
        fields >> label;
        if (label == "Uid:") {
            long real = -1, effective = -1;
            fields >> real >> effective;
            sameUser = effective == static_cast<long>(peer.uid);
        } else if (label == "Groups:") {
            long g;
            while (fields >> g) groups.push_back(static_cast<gid_t>(g));
        }
    }
    if (sameUser) who.groups = std::move(groups);
    return who;
}

struct ReachCheck::Child {
    Child(asio::io_context& io, int pidfd) : pidfd(io, pidfd) {}
    asio::posix::stream_descriptor pidfd;
    std::function<void(int)> done;
};

ReachCheck::ReachCheck(asio::io_context& io) : io_(io) {}

ReachCheck::~ReachCheck() {
    for (auto& [pid, child] : children_) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

void ReachCheck::run(const std::string& path, const UserIdentity& who, std::function<void(int)> done) {
    const bool switchUser = ::geteuid() != who.uid;
    const bool canSwitch = ::geteuid() == 0;
    const pid_t pid = ::fork();
    if (pid < 0) {
        asio::post(io_, [done = std::move(done), e = errno] { done(e); });
        return;
    }
    if (pid == 0) {
        // Only system calls from here: the daemon may have other threads.
        if (switchUser) {
            if (!canSwitch) ::_exit(EPERM);
            if (::syscall(SYS_setgroups, who.groups.size(), who.groups.data()) != 0 ||
                ::syscall(SYS_setresgid, who.gid, who.gid, who.gid) != 0 ||
                ::syscall(SYS_setresuid, who.uid, who.uid, who.uid) != 0)
                ::_exit(EPERM);
        }
        // Connecting needs search on every directory and write on the socket.
        ::_exit(::access(path.c_str(), W_OK) == 0 ? 0 : errno);
    }
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0) {
        const int error = errno;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        asio::post(io_, [done = std::move(done), error] { done(error); });
        return;
    }
    auto child = std::make_unique<Child>(io_, pidfd);
    child->done = std::move(done);
    std::weak_ptr<char> alive = alive_;
    child->pidfd.async_wait(asio::posix::stream_descriptor::wait_read, [this, alive, pid](const std::error_code& ec) {
        if (ec || alive.expired()) return;
        finished(pid);
    });
    children_.emplace(pid, std::move(child));
}

void ReachCheck::finished(pid_t pid) {
    auto it = children_.find(pid);
    if (it == children_.end()) return;
    std::unique_ptr<Child> child = std::move(it->second);
    children_.erase(it);
    siginfo_t info{};
    int result = EIO;
    // The pidfd is readable: the child has ended, so this does not wait.
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG) == 0 && info.si_pid == pid &&
        info.si_code == CLD_EXITED)
        result = info.si_status;
    child->done(result);
}

}  // namespace ksd
