// The Scheduler service on its own loop with a clock the test moves: a
// recurring program still running at its next time skips that run, and a
// daemon that was down for days makes up one run, not one per missed day.
#include "services/scheduler/scheduler_service.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <chrono>

#include "fake_daemon.h"
#include "service_test_fakes.h"

namespace {

using namespace ksdtest;

// A month before the real time: every due time the test creates lies in the
// real past, so the loop's timer fires as soon as the test lets it run.
const std::time_t kStart = std::time(nullptr) - 30 * 86400;

class SchedulerLoop : public ::testing::Test {
protected:
    // A zone without daylight saving, so that a day is always 86400 seconds here.
    SchedulerLoop() { ::setenv("TZ", "UTC", 1), ::tzset(); }
    ~SchedulerLoop() override { ::unsetenv("TZ"), ::tzset(); }
    void open(ksd::SchedulerLimits limits = {}) {
        service_.reset();
        limits.execHelper = KS_EXEC_HELPER;
        service_ = std::make_unique<ksd::SchedulerService>(io_, events_, dir_.path(), limits, [this] { return now_; });
    }
    static Fields daily(const std::string& name, const std::string& params, std::time_t at,
                        const std::string& program = "/bin/sh") {
        std::tm w{};
        localtime_r(&at, &w);
        return {str(name), str(program), str("/"), str(params), lng(0), lng(w.tm_mon + 1), lng(w.tm_mday),
                lng(w.tm_year + 1900), lng(w.tm_hour), lng(w.tm_min), lng(w.tm_sec), str("")};
    }
    std::int64_t scheduleDaily(const std::string& name, const std::string& params, std::time_t at,
                               uid_t uid = ::getuid(), const std::string& program = "/bin/sh") {
        return ask("TRVX_TS_SCHEDULE", daily(name, params, at, program), unixPeer(1, uid));
    }
    std::int64_t ask(const char* request, Fields fields, const ksd::PeerInfo& peer = unixPeer(1, ::getuid())) {
        return handle(*service_, request, std::move(fields), peer)->outcome();
    }
    std::vector<std::int32_t> states() const {
        std::vector<std::int32_t> out;
        for (const auto& e : events_.events) out.push_back(std::get<2>(e));
        return out;
    }
    std::int64_t status(const std::string& item) const { return statusOf(*service_, item); }
    // Runs the loop until `done` holds; the bound keeps a broken service from hanging the test.
    template <typename F>
    void runUntil(F done) {
        for (int i = 0; i < 100 && !done(); ++i) io_.run_one_for(std::chrono::milliseconds(100));
    }

    kstest::ScopedTempDir dir_{"kstest-scheduler"};
    asio::io_context io_;
    RecordingPublisher events_;
    std::time_t now_ = kStart;
    std::unique_ptr<ksd::SchedulerService> service_;
};

constexpr std::int32_t kWaiting = 2, kInProgress = 0, kCompleted = 1;

TEST_F(SchedulerLoop, ARecurringProgramStillRunningAtItsNextTimeSkipsThatRun) {
    open();
    ASSERT_GT(scheduleDaily("slow", "-c 'sleep 2'", kStart + 10), 0);
    now_ = kStart + 10;
    runUntil([&] { return states().size() >= 2; });
    ASSERT_EQ(states(), (std::vector<std::int32_t>{kWaiting, kInProgress}));
    for (const ksd::EventAudience& a : events_.audiences)
        EXPECT_TRUE(a.admits(::getuid()) && a.admits(0) && !a.admits(::getuid() + 1) && !a.admits(uid_t(-1)))
            << "among all tasks' events, a task's are for its owner and root only";
    now_ = kStart + 10 + 86400;  // the next day's time, the program still running
    runUntil([&] { return status("task_runs_skipped") == 1; });
    EXPECT_EQ(status("task_runs_skipped"), 1);
    EXPECT_EQ(status("task_runs"), 1);
    now_ = std::time(nullptr);  // the next due time is ahead again: the loop may rest
    runUntil([&] { return states().size() >= 4; });
    EXPECT_EQ(states(), (std::vector<std::int32_t>{kWaiting, kInProgress, kCompleted, kWaiting}));
}

TEST_F(SchedulerLoop, DaysOfDowntimeYieldOneRunAndTheNextIsAfterTheRestart) {
    open();
    const std::int64_t h = scheduleDaily("daily", "-c true", kStart + 10);
    ASSERT_GT(h, 0);
    service_.reset();                 // down from before the first run ...
    now_ = kStart + 5 * 86400 + 100;  // ... until five periods have passed
    events_.events.clear();
    open();
    runUntil([&] { return states().size() >= 3; });
    io_.run_for(std::chrono::milliseconds(200));
    EXPECT_EQ(states(), (std::vector<std::int32_t>{kInProgress, kCompleted, kWaiting}));
    EXPECT_EQ(status("task_runs"), 1);
    EXPECT_EQ(status("task_runs_skipped"), 0) << "missed periods are neither run nor counted as skipped";
    const std::string next = ksd::sched::formatTime(kStart + 6 * 86400 + 10, ksd::sched::Zone::Local);
    const std::string expected = kstest::Wire().addLong(0).addString(next).addInt(0);
    EXPECT_EQ(handle(*service_, "TRVX_TS_GET_NEXT_TIME", {lng(h)}, unixPeer(1, ::getuid()))->replied, expected);
}

TEST_F(SchedulerLoop, AUsersTasksTheirBytesAndTheirFieldsAreBoundedAndRootIsExempt) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: tasks of another user";
    ksd::SchedulerLimits limits;
    limits.maxTasksPerUser = 2;
    limits.maxTaskBytesPerUser = 4096;
    open(limits);
    const uid_t user = 65534;
    const std::time_t at = kStart + 10;
    const std::string big(3000, 'x');
    const std::int64_t first = scheduleDaily("u1", "-c true", at, user);
    EXPECT_GT(first, 0);
    EXPECT_EQ(scheduleDaily("u2", big + " " + big, at, user), -EDQUOT) << "over the user's bytes";
    EXPECT_GT(scheduleDaily("u2", big, at, user), 0);
    EXPECT_EQ(scheduleDaily("u3", "", at, user), -EDQUOT) << "over the user's tasks";
    for (int i = 0; i < 3; ++i) EXPECT_GT(scheduleDaily("root" + std::to_string(i), big + " " + big, at), 0);
    EXPECT_EQ(ask("TRVX_TS_CANCEL", Fields{lng(first)}, unixPeer(1, user)), 0);
    EXPECT_GT(scheduleDaily("u3", "", at, user), 0) << "a cancelled task frees its place";
    EXPECT_EQ(scheduleDaily("long-path", "", at, 0, "/" + std::string(4096, 'p')), -ENAMETOOLONG);
    EXPECT_EQ(scheduleDaily("long-params", std::string(128 * 1024 + 1, 'a'), at, 0), -E2BIG);
    open(limits);
    EXPECT_EQ(scheduleDaily("u4", "", at, user), -EDQUOT) << "the quota is counted again at start";
}

TEST_F(SchedulerLoop, OverTcpNoProgramABlobTaskIsItsSocketOwnersAndAClientOfUnknownOwnerChangesNothing) {
    open();
    EXPECT_EQ(ask("TRVX_TS_SCHEDULE", daily("p", "", kStart + 10), tcpPeerOf(1000)), kRefused + EACCES);
    const auto blob = [&](const char* name, const ksd::PeerInfo& peer) {
        return ask("TRVX_TS_SCHEDULE_BLOB",
                   Fields{str(name), num(1), {0, 0, "x"}, num(3), num(1), num(1), num(2040), num(0), num(0), num(0)},
                   peer);
    };
    EXPECT_EQ(blob("nobody's", tcpPeer()), kRefused + EACCES);
    const std::int64_t h = blob("alice's", tcpPeerOf(1000));
    ASSERT_GT(h, 0);
    EXPECT_EQ(ask("TRVX_TS_CANCEL", Fields{lng(h)}, tcpPeer()), kRefused + EACCES);
    EXPECT_EQ(ask("TRVX_TS_CANCEL", Fields{lng(h)}, tcpPeerOf(1001)), -EPERM) << "Bob over TCP";
    EXPECT_EQ(ask("TRVX_TS_TASK_STATE", Fields{lng(h)}, unixPeer(1, 1000)), kWaiting) << "Alice's, however she comes";
}

TEST_F(SchedulerLoop, ACancelledTaskAnswersUntilItsOwnerCancelsMoreThenLeavesTheStore) {
    ksd::SchedulerLimits limits;
    limits.cancelledKeptPerUser = 1;
    open(limits);
    const std::int64_t a = scheduleDaily("a", "-c true", kStart + 3600),
                       b = scheduleDaily("b", "-c true", kStart + 3600);
    ASSERT_EQ(ask("TRVX_TS_CANCEL", Fields{lng(a)}), 0);
    EXPECT_EQ(ask("TRVX_TS_TASK_STATE", Fields{lng(a)}), -1) << "exit";
    ASSERT_EQ(ask("TRVX_TS_CANCEL", Fields{lng(b)}), 0);
    open();  // keeping more now brings back nothing that was forgotten
    EXPECT_EQ(ask("TRVX_TS_TASK_STATE", Fields{lng(a)}), -ENOENT);
    EXPECT_EQ(ask("TRVX_TS_TASK_STATE", Fields{lng(b)}), -1);
}

}  // namespace
