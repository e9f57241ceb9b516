#ifndef KSCTL_TEST_RUNNER_H
#define KSCTL_TEST_RUNNER_H

// Runs the built ksctl as a user would: its own process, stdout and stderr captured, exit code
// collected. A started run can be waited for later, so a test can keep `subscribe` running.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "ksd_process.h"

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
    // Reads both streams until stderr (or stdout) holds `fragment` (true), they end or 20 s pass.
    bool waitForErr(const std::string& fragment) { return waitFor(fragment, &RunResult::err); }
    bool waitForOut(const std::string& fragment) { return waitFor(fragment, &RunResult::out); }
    // Reads both streams to their end and reaps the process.
    RunResult wait();

private:
    bool waitFor(const std::string& fragment, std::string RunResult::*stream);
    // One poll of both streams (up to timeoutMs); false once both have ended.
    bool pump(int timeoutMs);

    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    RunResult read_;
};

// Runs ksctl to completion.
RunResult runKsctl(const std::vector<std::string>& args);

// The lines of `text` (without their newlines).
std::vector<std::string> lines(const std::string& text);

// A member of the JSON object `json` (or of its item `index` when it is an
// array) as text: strings bare, other values as JSON; "<missing>" when absent.
std::string member(const std::string& json, std::size_t index, const char* key);

// A real ksd for each test on its own pipe and state directory, and ksctl pointed at it.
class KsctlTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(ksd_.start()) << ksd_.log(); }
    std::vector<std::string> cmd(std::vector<std::string> args, bool json = false) const {
        args.insert(args.begin(), {"--pipe", ksd_.pipeName()});
        if (json) args.insert(args.begin() + 2, "--json");
        return args;
    }
    RunResult run(std::vector<std::string> args, bool json = false) const {
        return runKsctl(cmd(std::move(args), json));
    }
    KsdProcess ksd_;
};

}  // namespace kstest

#endif
