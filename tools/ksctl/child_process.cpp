#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace ksctl {
namespace {

constexpr int kForwarded[] = {SIGINT, SIGTERM, SIGHUP};

int statusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
    return 1;
}

}  // namespace

ChildOutcome runCommand(const std::vector<std::string>& argv) {
    ChildOutcome outcome;
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    // From here on our stop signals are only received through sigwaitinfo, to be forwarded;
    // they stay blocked after the command ends so a late one cannot kill us before the caller
    // has cleaned up. SIGCHLD is blocked too, so its arrival is queued for the same wait; an
    // inherited SIG_IGN would make the kernel reap the child behind our back.
    ::signal(SIGCHLD, SIG_DFL);
    sigset_t waitSet, previous;
    sigemptyset(&waitSet);
    for (int s : kForwarded) sigaddset(&waitSet, s);
    sigaddset(&waitSet, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &waitSet, &previous);

    // exec failure is reported through a close-on-exec pipe: EOF means the exec succeeded.
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        outcome.execError = errno;
        outcome.status = 126;
        return outcome;
    }

    pid_t pid = ::fork();
    if (pid == 0) {
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        ::close(report[0]);
        ::execvp(args[0], args.data());
        int err = errno;
        [[maybe_unused]] ssize_t n = ::write(report[1], &err, sizeof err);
        ::_exit(err == ENOENT ? 127 : 126);
    }
    ::close(report[1]);
    if (pid < 0) {
        outcome.execError = errno;
        outcome.status = 126;
        ::close(report[0]);
        return outcome;
    }

    int err = 0;
    ssize_t n;
    do {
        n = ::read(report[0], &err, sizeof err);
    } while (n < 0 && errno == EINTR);
    ::close(report[0]);
    if (n == static_cast<ssize_t>(sizeof err)) outcome.execError = err;

    int waitStatus = 0;
    for (;;) {
        pid_t done = ::waitpid(pid, &waitStatus, WNOHANG);
        if (done == pid) break;
        if (done < 0 && errno != EINTR) {
            waitStatus = 0;
            break;
        }
        siginfo_t info;
        int sig = ::sigwaitinfo(&waitSet, &info);
        if (sig > 0 && sig != SIGCHLD) ::kill(pid, sig);
    }
    outcome.status = statusOf(waitStatus);
    return outcome;
}

}  // namespace ksctl
