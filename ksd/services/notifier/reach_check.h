#ifndef KSD_SERVICES_NOTIFIER_REACH_CHECK_H
#define KSD_SERVICES_NOTIFIER_REACH_CHECK_H

// Whether a user could connect to a Unix socket path, asked of the kernel
// in a short-lived child that takes the user's uid, gid and groups (so
// directory modes, ACLs and the socket file's own mode all count). The loop
// never waits: the answer comes when the child's pidfd turns readable.

#include <sys/types.h>

#include <asio/io_context.hpp>
#include <functional>
#include <string>
#include <vector>

#include "protocol/request.h"
#include "services/child_watch.h"

namespace ksd {

struct UserIdentity {
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::vector<gid_t> groups;
};

// The client's uid and gid with the supplementary groups of its process
// (none when that process is gone or now runs as someone else).
UserIdentity identityOf(const PeerInfo& peer);

class ReachCheck {
public:
    explicit ReachCheck(asio::io_context& io);
    ~ReachCheck();  // children still running are killed and reaped
    ReachCheck(const ReachCheck&) = delete;
    ReachCheck& operator=(const ReachCheck&) = delete;

    // done(0) when `who` may connect to `path`, else done(errno); always on a
    // later turn of the loop, never after destruction.
    void run(const std::string& path, const UserIdentity& who, std::function<void(int)> done);

private:
    asio::io_context& io_;
    ChildWatch children_;
};

}  // namespace ksd

#endif
