#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "OrvoResourceArbitration.h"
#include "child_process.h"
#include "commands.h"
#include "daemon_watch.h"
#include "failure.h"

namespace ksctl {
namespace {
constexpr int kWaitWithoutLimit = -1;
constexpr int kLockTimedOut = -110;
}  // namespace

int runLock(const GlobalOptions& /*options*/, const LockArgs& args) {
    const std::string subject = "lock " + args.name;
    long handle = OrvoRAResourceLock(args.name.c_str(), args.timeoutMs.value_or(kWaitWithoutLimit));
    if (handle == kLockTimedOut) {
        return reportError(subject + ": not granted within " + std::to_string(args.timeoutMs.value_or(0)) + " ms",
                           kExitTimedOut);
    }
    if (handle < 0) return reportFailure(subject, Domain::Lock, static_cast<int>(handle));

    // The lock belongs to this process, so we stay alive (and the lock held) until the
    // command ends; if we die anyway, the daemon releases the lock with our process.
    // ksd keeps a live holder's lock across its restarts; the user is told it was gone.
    // The handle is a fencing token: the command hands it to what it guards, which
    // refuses a handle lower than the last it saw.
    ::setenv("KS_LOCK_HANDLE", std::to_string(handle).c_str(), 1);
    DaemonWatch watch;
    watch.startPeriodic(2000);
    ChildOutcome outcome = runCommand(args.command);
    watch.stop();
    if (outcome.execError != 0) {
        reportError("cannot run " + args.command.front() + ": " + std::strerror(outcome.execError), 0);
    }

    int released = OrvoRAResourceUnlock(handle);
    if (released < 0) {
        // The command's status still says how the work went; the warning says the lock did not.
        reportError(
            subject + ": unlock failed: " + resultWords(Domain::Lock, released) + " (" + std::to_string(released) + ")",
            0);
    }
    return outcome.status;
}

}  // namespace ksctl
