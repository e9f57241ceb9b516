// Runs part of a test as another local user, in a child process: attacks are
// tested as the attacker would make them, with a second uid and real sockets.
#ifndef KSTEST_OTHER_USER_H
#define KSTEST_OTHER_USER_H

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kstest {

// The unprivileged user tests switch to.
inline constexpr uid_t kOtherUid = 65534;

class OtherUser {
public:
    // Objects the body keeps alive until finish(): connections held open, say.
    using Keep = std::vector<std::shared_ptr<void>>;
    using Body = std::function<std::string(Keep&)>;

    // Forks a child that switches to `uid` (gid the same) and runs `body`.
    // Null when this process cannot switch users (not root).
    static std::unique_ptr<OtherUser> start(Body body, uid_t uid = kOtherUid);
    ~OtherUser();

    // What the body returned; waits for it (empty if the child died first).
    std::string result();
    // Kills the child, which closes what it kept, and reaps it.
    void finish();

private:
    OtherUser() = default;
    pid_t pid_ = -1;
    int resultFd_ = -1;
};

// Runs `fn` as `uid` in a child process and returns its answer; empty when
// the child could not switch users or died first.
std::string runAs(uid_t uid, const std::function<std::string()>& fn);

}  // namespace kstest

#endif
