#include "ksctl_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <sstream>
#include <stdexcept>

#include "json.h"

extern char** environ;

namespace kstest {

KsctlRun::KsctlRun(const std::vector<std::string>& args) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

    // posix_spawn takes char* const[] but does not write through it.
    std::vector<char*> argv = {const_cast<char*>(KSCTL_BINARY)};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    int rc = posix_spawn(&pid_, KSCTL_BINARY, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    outFd_ = out[0];
    errFd_ = err[0];
    if (rc != 0) throw std::runtime_error("posix_spawn " KSCTL_BINARY);
}

KsctlRun::~KsctlRun() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
}

void KsctlRun::signal(int sig) const {
    if (pid_ > 0) ::kill(pid_, sig);
}

bool KsctlRun::pump(int timeoutMs) {
    if (outFd_ < 0 && errFd_ < 0) return false;
    pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
    if (::poll(fds, 2, timeoutMs) < 0) return errno == EINTR;
    int* fdRefs[2] = {&outFd_, &errFd_};
    std::string* sinks[2] = {&read_.out, &read_.err};
    char buf[4096];
    for (int i = 0; i < 2; ++i) {
        if (*fdRefs[i] < 0 || fds[i].revents == 0) continue;
        ssize_t n = ::read(*fdRefs[i], buf, sizeof buf);
        if (n > 0) {
            sinks[i]->append(buf, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            ::close(*fdRefs[i]);
            *fdRefs[i] = -1;
        }
    }
    return true;
}

bool KsctlRun::waitFor(const std::string& fragment, std::string RunResult::*stream) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while ((read_.*stream).find(fragment) == std::string::npos) {
        if (std::chrono::steady_clock::now() > end || !pump(100)) return false;
    }
    return true;
}

RunResult KsctlRun::wait() {
    while (pump(-1)) {
    }
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    RunResult result = std::move(read_);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

RunResult runKsctl(const std::vector<std::string>& args) { return KsctlRun(args).wait(); }

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::string member(const std::string& json, std::size_t index, const char* key) {
    const auto v = ksctl::parseJson(json);
    if (!v) return "<not json: " + json + ">";
    const ksctl::JsonValue* item =
        v->kind == ksctl::JsonValue::Kind::Array ? (index < v->items.size() ? &v->items[index] : nullptr) : &*v;
    const ksctl::JsonValue* m = item ? item->find(key) : nullptr;
    return !m ? "<missing>" : m->kind == ksctl::JsonValue::Kind::String ? m->text : ksctl::toJson(*m);
}

}  // namespace kstest
