#include "services/notifier/reach_check.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

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

ReachCheck::ReachCheck(asio::io_context& io) : io_(io), children_(io) {}

// A check nobody waits for any more need not finish.
ReachCheck::~ReachCheck() { children_.killAll(); }

void ReachCheck::run(const std::string& path, const UserIdentity& who, std::function<void(int)> done) {
    const bool switchUser = ::geteuid() != who.uid;
    const bool canSwitch = ::geteuid() == 0;
    const pid_t pid = ::fork();
    if (pid < 0) {
        asio::post(io_, [done = std::move(done), e = errno] { done(e); });
        return;
    }
    if (pid == 0) {
        // Only system calls from here: the daemon may have other threads. The
        // daemon's descriptors go first, so that a path that blocks (a hung
        // mount) holds none of them.
        ::syscall(SYS_close_range, 0U, ~0U, 0U);
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
    // The child's exit status is the answer: 0, or the errno of the check.
    auto onExit = [done](const siginfo_t& info) { done(info.si_code == CLD_EXITED ? info.si_status : EIO); };
    if (!children_.watch(pid, std::move(onExit))) asio::post(io_, [done = std::move(done), e = errno] { done(e); });
}

}  // namespace ksd
