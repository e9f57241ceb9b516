#ifndef KSD_SERVICES_SCHEDULER_PROGRAM_RUNNER_H
#define KSD_SERVICES_SCHEDULER_PROGRAM_RUNNER_H

// Starts a task's program without a shell, as the task's user, in a session
// of its own with a login's resource limits and none of the daemon's
// descriptors, and tells on the event loop how it ended. The child is
// reaped when its pidfd turns readable, never by a blocking wait; a failure
// before the program's exec comes back through a close-on-exec pipe.
// Starting copies nothing of the daemon's memory: a child that borrows it
// execs ksd-exec at once, which does the steps that may block.

#include <sys/resource.h>
#include <sys/types.h>

#include <asio/io_context.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "services/child_watch.h"

namespace ksd::sched {

struct RunSpec {
    std::string program;            // a path, or a name searched in the user's PATH
    std::vector<std::string> args;  // after argv[0]
    std::string workDir;            // empty: the user's home
    std::string logFile;            // empty: output goes to /dev/null
    uid_t uid = 0;
};

struct RunResult {
    bool started = false;  // false: it never reached exec (see error, stage)
    int error = 0;
    std::string stage;  // what failed before exec: "chdir", "log file", "exec", ...
    int exitCode = 0;   // exit status, or 128 + signal
};

struct ResourceLimit {
    int resource;
    rlimit value;
};

// The limits in force now, the soft descriptor limit lowered to a login's
// 1024: taken before the daemon raises its own, they are what a program gets.
std::vector<ResourceLimit> loginLimits();

class ProgramRunner {
public:
    // `limits`: set in every child (empty: loginLimits() of now). `helper`:
    // ksd-exec's path (empty: beside the daemon's executable, else installed).
    ProgramRunner(asio::io_context& io, std::vector<ResourceLimit> limits = {}, std::string helper = {});
    ~ProgramRunner();

    // The child's pid, or -1 with `failure` set when nothing could be started
    // (unknown user, no pidfd, fork failed). `done` runs once, on the loop.
    pid_t start(const RunSpec& spec, std::function<void(const RunResult&)> done, std::string& failure);
    std::size_t running() const { return children_.size(); }

private:
    std::vector<ResourceLimit> limits_;
    std::string helper_;
    std::unique_ptr<char[]> stack_;  // the starting child's
    // Programs go on when the daemon stops: they are not killed here.
    ChildWatch children_;
};

}  // namespace ksd::sched

#endif
