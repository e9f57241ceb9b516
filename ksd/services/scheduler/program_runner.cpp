#include "services/scheduler/program_runner.h"

#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <linux/close_range.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "services/scheduler/exec_stage.h"

namespace ksd::sched {

namespace {

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
        case kHelper:
            return "starting ksd-exec";
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

// The starting child's stack: the daemon's thread waits while the child
// runs on it, so one serves every start.
constexpr std::size_t kChildStack = 128 * 1024;

// What the starting child needs, all built before it exists.
struct ChildSetup {
    int report;
    const std::vector<ResourceLimit>* limits;
    bool setLimits;
    const char* helper;
    char* const* argv;
    char* const* envp;
};

static_assert(sizeof(rlim_t) == 8, "prlimit64 takes the limits as they are kept");

// The starting child calls the kernel directly: a C library or sanitizer
// wrapper could touch state it shares with the daemon's threads.
[[noreturn]] void childFails(int fd, int stage) {
    const int report[2] = {stage, errno};
    ::syscall(SYS_write, fd, report, sizeof report);
    ::syscall(SYS_exit_group, 127);
    __builtin_unreachable();
}

// Runs in a child that shares the daemon's memory while the daemon's thread
// waits for its exec (CLONE_VM | CLONE_VFORK), with every signal blocked: it
// only makes system calls on what ChildSetup points to, and writes nothing
// but its own stack (and errno, which the waiting thread does not read).
// The steps that may block on a user's paths are ksd-exec's, after the exec.
__attribute__((no_sanitize("address", "thread", "undefined"))) int startChild(void* arg) {
    const ChildSetup& c = *static_cast<const ChildSetup*>(arg);
    const int fail = c.report;
    // Nothing of the daemon's survives the exec but the report pipe: a
    // program that blocks holds no listener, database or lock.
    if (fail > 3) ::syscall(SYS_close_range, 3U, static_cast<unsigned>(fail) - 1, CLOSE_RANGE_CLOEXEC);
    ::syscall(SYS_close_range, static_cast<unsigned>(fail) + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    ::syscall(SYS_fcntl, fail, F_SETFD, 0);  // ksd-exec reports through it
    const long null = ::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (null < 0) childFails(fail, kLogFile);
    for (int std = 0; std <= 2; ++std) ::syscall(SYS_dup3, null, std, 0);
    // A session of its own: no controlling terminal to inject keystrokes into.
    if (::syscall(SYS_setsid) < 0) childFails(fail, kSession);
    for (const ResourceLimit& l : *c.limits)
        if (::syscall(SYS_prlimit64, 0, l.resource, &l.value, nullptr) != 0 && c.setLimits) childFails(fail, kLimits);
    // Caught signals are reset by the exec; ksd-exec resets the ignored ones and unblocks them all.
    ::syscall(SYS_execve, c.helper, c.argv, c.envp);
    childFails(fail, kHelper);
}

// ksd-exec beside the daemon's executable (a build tree), else where it is
// installed relative to it.
std::string findHelper() {
    char self[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    std::string dir = n > 0 ? std::string(self, static_cast<std::size_t>(n)) : std::string("/usr/sbin/ksd");
    dir.erase(dir.rfind('/') + 1);
    const std::string beside = dir + "ksd-exec";
    return ::access(beside.c_str(), X_OK) == 0 ? beside : dir + KSD_EXEC_HELPER_FROM_SBIN;
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

ProgramRunner::ProgramRunner(asio::io_context& io, std::vector<ResourceLimit> limits, std::string helper)
    : limits_(std::move(limits)),
      helper_(helper.empty() ? findHelper() : std::move(helper)),
      stack_(std::make_unique<char[]>(kChildStack)),
      children_(io) {
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
    const std::string program = locate(spec.program, path);
    const std::string& workDir = spec.workDir.empty() ? account.home : spec.workDir;

    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        failure = std::string("pipe: ") + std::strerror(errno);
        return -1;
    }
    // Everything the child needs is built here: it only makes system calls.
    std::string groups;
    for (gid_t g : account.groups) groups += (groups.empty() ? "" : ",") + std::to_string(g);
    std::vector<std::string> words = {"ksd-exec",
                                      std::to_string(report[1]),
                                      switchUser ? std::to_string(spec.uid) : "-",
                                      std::to_string(account.gid),
                                      groups,
                                      workDir,
                                      spec.logFile,
                                      program,
                                      spec.program};
    words.insert(words.end(), spec.args.begin(), spec.args.end());
    const std::vector<std::string> env = {"PATH=" + path, "HOME=" + account.home, "USER=" + account.name,
                                          "LOGNAME=" + account.name, "SHELL=" + account.shell};
    std::vector<char*> argv, envp;
    for (const auto& w : words) argv.push_back(const_cast<char*>(w.c_str()));
    argv.push_back(nullptr);
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    const ChildSetup setup{report[1], &limits_, switchUser, helper_.c_str(), argv.data(), envp.data()};

    // No copy of the daemon's address space: the child borrows it until it
    // has exec'd ksd-exec, which costs the loop far less than a fork. No
    // handler of the daemon's may run in the child meanwhile.
    sigset_t all, old;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &old);
    const pid_t pid = ::clone(startChild, stack_.get() + kChildStack, CLONE_VM | CLONE_VFORK | SIGCHLD,
                              const_cast<ChildSetup*>(&setup));
    const int cloneError = errno;
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (pid < 0) {
        failure = std::string("clone: ") + std::strerror(cloneError);
        ::close(report[0]), ::close(report[1]);
        return -1;
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
