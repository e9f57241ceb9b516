// Shared by the end-to-end tests: one real ksd process per test program (the client
// library's shared connection keeps the first address it used), event collectors for
// the C callbacks, the operator's query, and helper processes pointed at the daemon.
#pragma once
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>

#include "ksd_process.h"
#include "wait_until.h"

namespace e2e {

using Log = std::vector<std::pair<std::string, int>>;

// Events handed to a C callback on the library's delivery thread.
struct EventLog {
    std::mutex mutex;
    std::condition_variable changed;
    Log items;
    void add(const char* text, int code) {
        std::lock_guard<std::mutex> lock(mutex);
        items.emplace_back(text ? text : "", code);
        changed.notify_all();
    }
    // Bounded, so a lost event fails the test instead of hanging it.
    Log waitFor(std::size_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, std::chrono::seconds(20), [&] { return items.size() >= n; });
        return items;
    }
};

// The daemon every test of the program talks to.
class DaemonSuite : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ksd_ = new kstest::KsdProcess();
        ASSERT_TRUE(ksd_->start()) << ksd_->log();
        ::setenv("KSINTF_CONN_TYPE", ksd_->connType().c_str(), 1);
    }
    static void TearDownTestSuite() { delete std::exchange(ksd_, nullptr); }
    void SetUp() override { ASSERT_TRUE(ksd_ != nullptr && ksd_->isRunning()) << "ksd is not running"; }

    // ks_client_helper running `steps` against this daemon (KSINTF_CONN_TYPE names it).
    static std::unique_ptr<kstest::ChildProcess> helper(const std::vector<std::string>& steps) {
        auto child = std::make_unique<kstest::ChildProcess>(kstest::clientHelperProgram(), steps);
        EXPECT_TRUE(child->started());
        return child;
    }
    // The number after "<prefix> " in the helper's next line that starts so; -9999 when none came.
    static long helperValue(kstest::ChildProcess& child, const std::string& prefix) {
        const std::string line = child.waitForLine(prefix + " ");
        return line.empty() ? -9999 : std::stol(line.substr(prefix.size() + 1));
    }
    static inline kstest::KsdProcess* ksd_ = nullptr;
};

// Asks the running daemon an operator query ("locks", "jobs", "status"); empty when no answer came.
inline std::string queryDaemon(const std::string& what) {
    return kstest::operatorQuery(std::getenv("KSINTF_CONN_TYPE"), what);
}

using kstest::waitUntil;

inline std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace e2e
