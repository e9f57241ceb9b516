// Child processes of the tests: ksd itself, other programs, and a child running as another user.
#include "ksd_process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

#include "other_user.h"
#include "wait_until.h"

extern char** environ;

#ifndef KS_TEST_DEFAULT_BINARY_DIR
#define KS_TEST_DEFAULT_BINARY_DIR "."
#endif

namespace kstest {

namespace {

// Waits for `pid` to end: its exit status (128 + signal when killed by one), -1 if it cannot.
int reap(pid_t pid) {
    int status = 0;
    pid_t r;
    do {
        r = ::waitpid(pid, &status, 0);
    } while (r < 0 && errno == EINTR);
    if (r < 0) return -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> p;
    for (auto& s : strings) p.push_back(s.data());
    p.push_back(nullptr);
    return p;
}

}  // namespace

std::string testBinaryDir() {
    const char* dir = std::getenv("KS_TEST_BINARY_DIR");
    return dir && *dir ? dir : KS_TEST_DEFAULT_BINARY_DIR;
}

std::string ksdProgram() { return testBinaryDir() + "/ksd/ksd"; }

std::string clientHelperProgram() { return testBinaryDir() + "/tests/support/ks_client_helper"; }

KsdProcess::KsdProcess()
    : root_("kstest-ksd"),
      stateDir_(root_.path() + "/state"),
      logFile_(root_.path() + "/ksd.log"),
      pipe_(uniqueName("kstest-ksd")) {}

KsdProcess::~KsdProcess() {
    if (pid_ > 0) kill();
}

bool KsdProcess::start(const std::vector<std::string>& extraArgs) {
    if (isRunning()) return true;
    extraArgs_ = extraArgs;
    std::vector<std::string> args = {ksdProgram(), "--foreground", "--pipe", pipe_, "--state-dir", stateDir_};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    auto argv = pointers(args);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // Opened after setsid(), a terminal becomes the controlling one.
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, terminal_.empty() ? "/dev/null" : terminal_.c_str(),
                                     terminal_.empty() ? O_RDONLY : O_RDWR, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    if (!terminal_.empty()) posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    const int rc = ::posix_spawn(&pid_, args[0].c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        pid_ = -1;
        return false;
    }
    bool exited = false;
    const bool up = waitUntil([&] { return (exited = !isRunning()) || WireClient().connect(connType()); },
                              std::chrono::seconds(20));
    if (up && !exited) return true;
    if (!exited) kill();
    return false;
}

int KsdProcess::end(int nSignal) {
    if (pid_ <= 0) return -1;
    ::kill(pid_, nSignal);
    return reap(std::exchange(pid_, -1));
}

bool KsdProcess::restart(bool hard) {
    hard ? kill() : stop();
    return start(extraArgs_);
}

bool KsdProcess::isRunning() {
    if (pid_ <= 0) return false;
    int status = 0;
    const pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == 0) return true;
    pid_ = -1;
    return false;
}

std::string KsdProcess::log() const {
    std::ifstream in(logFile_);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

int KsdProcess::tcpPort() const {
    // The pipe may accept a moment before the ready line is written.
    const std::string marker = "127.0.0.1:";
    std::string text;
    waitUntil([&] {
        text = log();
        return text.find(marker) != std::string::npos && text.find('\n', text.rfind(marker)) != std::string::npos;
    });
    const auto at = text.rfind(marker);
    return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + marker.size());
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::map<std::string, std::string>& env, bool captureStderr) {
    // A write to a child that already ended must fail, not kill the test.
    ::signal(SIGPIPE, SIG_IGN);
    // env(1) sets `env` over this process's environment and execs the program under the same pid.
    std::vector<std::string> argStrings;
    if (!env.empty()) argStrings.push_back("/usr/bin/env");
    for (const auto& [k, v] : env) argStrings.push_back(k + "=" + v);
    argStrings.push_back(program);
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    auto argv = pointers(argStrings);

    int inPipe[2], outPipe[2], errPipe[2] = {-1, -1};
    if (::pipe2(inPipe, O_CLOEXEC) != 0 || ::pipe2(outPipe, O_CLOEXEC) != 0) return;
    if (captureStderr && ::pipe2(errPipe, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inPipe[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    if (captureStderr) posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    const int rc = ::posix_spawn(&pid_, argStrings[0].c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    for (int end : {inPipe[0], outPipe[1], errPipe[1]})
        if (end >= 0) ::close(end);
    in_ = inPipe[1];
    out_ = outPipe[0];
    err_ = errPipe[0];
    if (rc != 0) pid_ = -1;
}

ChildProcess::~ChildProcess() {
    if (in_ >= 0) ::close(std::exchange(in_, -1));
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
    for (int fd : {out_, err_})
        if (fd >= 0) ::close(fd);
}

bool ChildProcess::pump(int nTimeoutMs) {
    if (out_ < 0 && err_ < 0) return false;
    pollfd p[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};  // a negative descriptor is skipped
    const int r = ::poll(p, 2, nTimeoutMs);
    if (r <= 0) return r < 0 && errno == EINTR;
    int* fds[2] = {&out_, &err_};
    std::string* sinks[2] = {&buffer_, &errText_};
    for (int i = 0; i < 2; ++i) {
        if (p[i].revents == 0) continue;
        char chunk[4096];
        const ssize_t n = ::read(*fds[i], chunk, sizeof chunk);
        if (n > 0) {
            sinks[i]->append(chunk, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            ::close(*fds[i]);
            *fds[i] = -1;
        }
    }
    return true;
}

bool ChildProcess::pumpUntil(const std::function<bool()>& done, int nTimeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
    for (;;) {
        if (done()) return true;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !pump(static_cast<int>(left.count()))) return false;
    }
}

bool ChildProcess::readLine(std::string& line, int nTimeoutMs) {
    if (!pumpUntil([&] { return buffer_.find('\n') != std::string::npos; }, nTimeoutMs)) return false;
    const std::size_t nl = buffer_.find('\n');
    line = buffer_.substr(0, nl);
    buffer_.erase(0, nl + 1);
    return true;
}

std::string ChildProcess::waitForLine(const std::string& prefix, int nTimeoutMs) {
    std::string line;
    const auto found = [&] {
        while (readLine(line, 0))
            if (line.rfind(prefix, 0) == 0) return true;
        return false;
    };
    return pumpUntil(found, nTimeoutMs) ? line : std::string();
}

bool ChildProcess::waitFor(const std::string& fragment, bool inStderr) {
    return pumpUntil([&] { return (inStderr ? errText_ : buffer_).find(fragment) != std::string::npos; }, 20000);
}

bool ChildProcess::writeLine(const std::string& line) {
    if (in_ < 0) return false;
    const std::string bytes = line + "\n";
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(in_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

void ChildProcess::signal(int nSignal) {
    if (pid_ > 0) ::kill(pid_, nSignal);
}

int ChildProcess::finish() {
    if (in_ >= 0) ::close(std::exchange(in_, -1));
    while (pump(-1)) {
    }
    return wait();
}

int ChildProcess::wait() {
    if (pid_ > 0) status_ = reap(std::exchange(pid_, -1));
    return status_;
}

std::unique_ptr<OtherUser> OtherUser::start(Body body, uid_t uid) {
    if (::geteuid() != 0) return nullptr;
    int result[2];
    if (::pipe2(result, O_CLOEXEC) != 0) return nullptr;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(result[0]);
        if (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 || ::setresuid(uid, uid, uid) != 0)
            ::_exit(97);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // set after the switch, which clears it
        Keep keep;
        const std::string out = body(keep);
        for (std::size_t at = 0; at < out.size();) {
            const ssize_t n = ::write(result[1], out.data() + at, out.size() - at);
            if (n <= 0) break;
            at += static_cast<std::size_t>(n);
        }
        ::close(result[1]);
        for (;;) ::pause();  // holds what it keeps until finish() kills it
    }
    ::close(result[1]);
    std::unique_ptr<OtherUser> child(new OtherUser);
    child->pid_ = pid;
    child->resultFd_ = result[0];
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
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        reap(std::exchange(pid_, -1));
    }
}

std::string runAs(uid_t uid, const std::function<std::string()>& fn) {
    auto child = OtherUser::start([&](OtherUser::Keep&) { return fn(); }, uid);
    return child ? child->result() : "";
}

}  // namespace kstest
