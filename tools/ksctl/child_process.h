#ifndef KSCTL_CHILD_PROCESS_H
#define KSCTL_CHILD_PROCESS_H

// Runs a command (PATH search, no shell) to its end, passing SIGINT, SIGTERM and SIGHUP on to it,
// and reports its status the way a shell does: exit code, or 128 + signal number.

#include <string>
#include <vector>

namespace ksctl {

struct ChildOutcome {
    int status = 0;     // the exit code to pass on
    int execError = 0;  // errno when the command could not be started (status is then 126/127)
};

// On return SIGINT, SIGTERM and SIGHUP are still blocked in the caller, who is expected to
// finish its clean-up and exit.
ChildOutcome runCommand(const std::vector<std::string>& argv);

}  // namespace ksctl

#endif
