#ifndef KSCTL_TEST_RUNNER_H
#define KSCTL_TEST_RUNNER_H

// Runs the built ksctl as a user would: its own process, stdout and stderr captured, exit code
// collected. A started run can be waited for later, so a test can keep `subscribe` running.

#include <sys/types.h>

#include <string>
#include <vector>

namespace kstest {

struct RunResult {
    int exitCode = -1;  // 128 + signal when killed by a signal
    std::string out;
    std::string err;
};

class KsctlRun {
public:
    explicit KsctlRun(const std::vector<std::string>& args);
    ~KsctlRun();
    KsctlRun(const KsctlRun&) = delete;
    KsctlRun& operator=(const KsctlRun&) = delete;

    void signal(int sig) const;
    // Reads both streams to their end and reaps the process.
    RunResult wait();

private:
    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
};

// Runs ksctl to completion.
RunResult runKsctl(const std::vector<std::string>& args);

// The lines of `text` (without their newlines).
std::vector<std::string> lines(const std::string& text);

}  // namespace kstest

#endif
