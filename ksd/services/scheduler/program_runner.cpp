#include "services/scheduler/program_runner.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace ksd::sched {

namespace {

// Which step of the child failed; sent with errno through the pipe.
enum Stage : int { kCredentials = 1, kChdir, kLogFile, kLogNotRegular, kExec, kSession, kLimits };

const char* stageName(int stage) {
    switch (stage) {
        case kCredentials:
            return "switching user";
        case kChdir:
            return "working directory";
        case kLogFile:
            return "log file";
        case kLogNotRegular:
            return "log file is not a regular file";
        case kExec:
            return "exec";
        case kSession:
            return "new session";
        case kLimits:
            return "resource limits";
    }
    return "start";
}

struct Account {
    std::string name, home, shell;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

bool lookUpAccount(uid_t uid, Account& account) {
    std::vector<char> buffer(16384);
    passwd pw{};
    passwd* found = nullptr;
    if (::getpwuid_r(uid, &pw, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return false;
    account.name = pw.pw_name;
    account.home = pw.pw_dir != nullptr ? pw.pw_dir : "/";
    account.shell = pw.pw_shell != nullptr && *pw.pw_shell != '\0' ? pw.pw_shell : "/bin/sh";
    account.gid = pw.pw_gid;
    int count = 64;
    account.groups.resize(static_cast<std::size_t>(count));
    if (::getgrouplist(pw.pw_name, pw.pw_gid, account.groups.data(), &count) < 0) {
        account.groups.resize(static_cast<std::size_t>(count));
        ::getgrouplist(pw.pw_name, pw.pw_gid, account.groups.data(), &count);
    }
    account.groups.resize(static_cast<std::size_t>(count));
    return true;
}

// The program as exec will see it: a bare name is looked up in `path`.
std::string locate(const std::string& program, const std::string& path) {
    if (program.find('/') != std::string::npos) return program;
    std::size_t from = 0;
    while (from <= path.size()) {
        std::size_t to = path.find(':', from);
        if (to == std::string::npos) to = path.size();
        const std::string candidate = path.substr(from, to - from) + "/" + program;
        struct stat st {};
        if (to > from && ::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return candidate;
        from = to + 1;
    }
    return program;  // exec fails with ENOENT and says so
}

[[noreturn]] void childFails(int fd, int stage) {
    const int report[2] = {stage, errno};
    [[maybe_unused]] const ssize_t n = ::write(fd, report, sizeof report);
    ::_exit(127);
}

}  // namespace

std::vector<ResourceLimit> loginLimits() {
    std::vector<ResourceLimit> limits;
    for (int r = 0; r < RLIM_NLIMITS; ++r) {
        rlimit value{};
        if (::getrlimit(static_cast<__rlimit_resource>(r), &value) != 0) continue;
        // A login's soft descriptor limit is the select()-safe 1024, whatever the hard one.
        if (r == RLIMIT_NOFILE && (value.rlim_cur == RLIM_INFINITY || value.rlim_cur > 1024)) value.rlim_cur = 1024;
        limits.push_back({r, value});
    }
    return limits;
}

ProgramRunner::ProgramRunner(asio::io_context& io, std::vector<ResourceLimit> limits)
    : limits_(std::move(limits)), children_(io) {
    if (limits_.empty()) limits_ = loginLimits();
}

ProgramRunner::~ProgramRunner() = default;

pid_t ProgramRunner::start(const RunSpec& spec, std::function<void(const RunResult&)> done, std::string& failure) {
    Account account;
    if (!lookUpAccount(spec.uid, account)) {
        failure = "no account for uid " + std::to_string(spec.uid);
        return -1;
    }
    const bool switchUser = ::geteuid() == 0;
    const std::string path =
        spec.uid == 0 ? "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin" : "/usr/local/bin:/usr/bin:/bin";
    // Everything the child needs is built here: between fork and exec it
    // only makes system calls.
    std::vector<std::string> env = {"PATH=" + path, "HOME=" + account.home, "USER=" + account.name,
                                    "LOGNAME=" + account.name, "SHELL=" + account.shell};
    const std::string program = locate(spec.program, path);
    std::vector<char*> argv, envp;
    argv.push_back(const_cast<char*>(spec.program.c_str()));
    for (const auto& a : spec.args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    const std::string& workDir = spec.workDir.empty() ? account.home : spec.workDir;

    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        failure = std::string("pipe: ") + std::strerror(errno);
        return -1;
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        failure = std::string("fork: ") + std::strerror(errno);
        ::close(report[0]), ::close(report[1]);
        return -1;
    }
    if (pid == 0) {
        // Nothing of the daemon's survives into the child before it touches
        // anything of the user's: a path that blocks (a FIFO, a hung mount)
        // then holds no listener, database or lock, only this child.
        const int fail = report[1];
        if (fail > 3) ::syscall(SYS_close_range, 3U, static_cast<unsigned>(fail) - 1, 0U);
        ::syscall(SYS_close_range, static_cast<unsigned>(fail) + 1, ~0U, 0U);
        const int null = ::open("/dev/null", O_RDWR | O_NOCTTY);
        if (null < 0) childFails(fail, kLogFile);
        ::dup2(null, 0), ::dup2(null, 1), ::dup2(null, 2);
        if (null > 2) ::close(null);
        // A session of its own: no controlling terminal to inject keystrokes into.
        if (::setsid() < 0) childFails(fail, kSession);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int s = 1; s < NSIG; ++s) ::signal(s, SIG_DFL);
        for (const ResourceLimit& l : limits_)
            if (::setrlimit(static_cast<__rlimit_resource>(l.resource), &l.value) != 0 && switchUser)
                childFails(fail, kLimits);
        if (switchUser && (::setgroups(account.groups.size(), account.groups.data()) != 0 ||
                           ::setgid(account.gid) != 0 || ::setuid(spec.uid) != 0))
            childFails(fail, kCredentials);
        if (::chdir(workDir.c_str()) != 0) childFails(fail, kChdir);
        // The daemon's own 077 is not the program's business.
        ::umask(022);
        if (!spec.logFile.empty()) {
            // Non-blocking, so that a FIFO fails or opens at once; only a regular file is taken.
            const int out = ::open(spec.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY, 0644);
            if (out < 0) childFails(fail, kLogFile);
            struct stat st {};
            if (::fstat(out, &st) != 0) childFails(fail, kLogFile);
            if (!S_ISREG(st.st_mode)) {
                errno = 0;  // the stage says it all
                childFails(fail, kLogNotRegular);
            }
            ::fcntl(out, F_SETFL, O_APPEND);
            ::dup2(out, 1), ::dup2(out, 2);
            if (out > 2) ::close(out);
        }
        ::execve(program.c_str(), argv.data(), envp.data());
        childFails(fail, kExec);
    }
    ::close(report[1]);
    ::fcntl(report[0], F_SETFL, O_NONBLOCK);
    // The report pipe says how far the child got before exec; it is closed
    // with the callback, whether or not the child ever ends while watched.
    auto reportFd = std::shared_ptr<int>(new int(report[0]), [](int* fd) {
        ::close(*fd);
        delete fd;
    });
    auto onExit = [reportFd, done = std::move(done)](const siginfo_t& info) {
        RunResult result;
        if (info.si_pid != 0) result.exitCode = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
        int fields[2] = {0, 0};
        if (::read(*reportFd, fields, sizeof fields) == static_cast<ssize_t>(sizeof fields)) {
            result.stage = stageName(fields[0]);
            result.error = fields[1];
        } else {
            result.started = true;
        }
        done(result);
    };
    if (!children_.watch(pid, std::move(onExit))) {
        failure = std::string("pidfd_open: ") + std::strerror(errno);
        return -1;
    }
    return pid;
}

}  // namespace ksd::sched
