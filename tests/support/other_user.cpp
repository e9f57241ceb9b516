#include "other_user.h"

#include <grp.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace kstest {

namespace {
// Write ends held for children still running: a later child must not inherit
// them, or an earlier child would never see its end-of-file and never exit.
std::vector<int>& openGoEnds() {
    static std::vector<int> ends;
    return ends;
}
}  // namespace

std::unique_ptr<OtherUser> OtherUser::start(Body body, uid_t uid) {
    if (::geteuid() != 0) return nullptr;
    int result[2], go[2];
    if (::pipe(result) != 0) return nullptr;
    if (::pipe(go) != 0) {
        ::close(result[0]);
        ::close(result[1]);
        return nullptr;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(result[0]);
        ::close(go[1]);
        for (int fd : openGoEnds()) ::close(fd);
        if (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 || ::setresuid(uid, uid, uid) != 0)
            ::_exit(97);
        Keep keep;
        const std::string out = body(keep);
        for (std::size_t at = 0; at < out.size();) {
            const ssize_t n = ::write(result[1], out.data() + at, out.size() - at);
            if (n <= 0) break;
            at += static_cast<std::size_t>(n);
        }
        ::close(result[1]);
        char c;
        while (::read(go[0], &c, 1) > 0) {
        }
        ::_exit(0);
    }
    ::close(result[1]);
    ::close(go[0]);
    std::unique_ptr<OtherUser> child(new OtherUser);
    child->pid_ = pid;
    child->resultFd_ = result[0];
    child->goFd_ = go[1];
    openGoEnds().push_back(go[1]);
    return child;
}

OtherUser::~OtherUser() { finish(); }

std::string OtherUser::result() {
    std::string out;
    if (resultFd_ < 0) return out;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(resultFd_, buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
    ::close(resultFd_);
    resultFd_ = -1;
    return out;
}

void OtherUser::finish() {
    if (resultFd_ >= 0) result();
    if (goFd_ >= 0) {
        std::erase(openGoEnds(), goFd_);
        ::close(goFd_);
    }
    goFd_ = -1;
    if (pid_ > 0) {
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
}

std::string runAs(uid_t uid, const std::function<std::string()>& fn) {
    auto child = OtherUser::start([&](OtherUser::Keep&) { return fn(); }, uid);
    if (!child) return "";
    std::string out = child->result();
    child->finish();
    return out;
}

}  // namespace kstest
