// ksd-exec: the last step of starting a scheduled program. ksd starts it
// from a child that shares the daemon's memory (so that starting costs the
// daemon no copy of its address space) and the daemon waits only until this
// exec; everything that may block on a user's path (working directory, log
// file, the program itself) happens here, in a process of its own.
//
//   ksd-exec REPORT-FD UID GID GROUPS WORK-DIR LOG-FILE PROGRAM ARGV0 [ARG...]
//
// UID "-" keeps the current user (a daemon not running as root); GROUPS is a
// comma-separated list. A failure writes {stage, errno} to REPORT-FD (see
// exec_stage.h) and exits 127; exec closes REPORT-FD, which tells success.

#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "services/scheduler/exec_stage.h"

namespace {

int reportFd = -1;
gid_t groups[NGROUPS_MAX];

[[noreturn]] void fail(int stage) {
    const int report[2] = {stage, errno};
    [[maybe_unused]] const ssize_t n = ::write(reportFd, report, sizeof report);
    ::_exit(127);
}

long number(const char* text) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') {
        errno = EINVAL;
        fail(ksd::sched::kHelper);
    }
    return v;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace ksd::sched;
    if (argc < 9) return 127;
    reportFd = static_cast<int>(number(argv[1]));
    // The daemon's ignored signals and its mask are not the program's.
    for (int s = 1; s < NSIG; ++s) ::signal(s, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    if (argv[2][0] != '-') {
        std::size_t count = 0;
        for (char* p = argv[4]; *p != '\0' && count < NGROUPS_MAX;) {
            char* end = nullptr;
            groups[count++] = static_cast<gid_t>(std::strtoul(p, &end, 10));
            if (end == p) break;
            p = *end == ',' ? end + 1 : end;
        }
        if (::setgroups(count, groups) != 0 || ::setgid(static_cast<gid_t>(number(argv[3]))) != 0 ||
            ::setuid(static_cast<uid_t>(number(argv[2]))) != 0)
            fail(kCredentials);
    }
    if (::chdir(argv[5]) != 0) fail(kChdir);
    // The daemon's own 077 is not the program's business.
    ::umask(022);
    if (argv[6][0] != '\0') {
        // Non-blocking, so that a FIFO fails or opens at once; only a regular file is taken.
        const int out = ::open(argv[6], O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
        if (out < 0) fail(kLogFile);
        struct stat st {};
        if (::fstat(out, &st) != 0) fail(kLogFile);
        if (!S_ISREG(st.st_mode)) {
            errno = 0;  // the stage says it all
            fail(kLogNotRegular);
        }
        ::fcntl(out, F_SETFL, O_APPEND);
        ::dup2(out, 1), ::dup2(out, 2);
    }
    ::fcntl(reportFd, F_SETFD, FD_CLOEXEC);
    ::execve(argv[7], argv + 8, environ);
    fail(kExec);
}
