// Locks through libksintf against a real ksd, held by client processes: a
// holder killed with SIGKILL whose lock passes on to the waiter, a wait longer
// than the reply deadline, and locks and a subscription across a kill of ksd.
#include <signal.h>

#include "OrvoResourceArbitration.h"
#include "e2e_support.h"

namespace {

using e2e::waitUntil;
using e2e::queryDaemon;

class LockEndToEnd : public e2e::DaemonSuite {};

// The "locks" query shows the holder's pid and the number of waiters.
bool heldBy(const std::string& resource, pid_t pid, int waiters) {
    const std::string json = queryDaemon("locks");
    const auto at = json.find("{\"name\":\"" + resource + "\"");
    const std::string entry = at == std::string::npos ? "" : json.substr(at, json.find('}', at) - at);
    return entry.find("\"pid\":" + std::to_string(pid) + ",") != std::string::npos &&
           entry.find("\"waiters\":" + std::to_string(waiters)) != std::string::npos;
}

e2e::EventLog g_tapeEvents;

TEST_F(LockEndToEnd, AHolderKilledWithSigkillReleasesItsLockToTheWaiter) {
    const int registration =
        OrvoRARegisterForNotification("tape0", [](const char* name, int code) { g_tapeEvents.add(name, code); });
    ASSERT_GE(registration, 0);
    auto holder = helper({"lock", "tape0", "-1", "hang"});
    ASSERT_GT(helperValue(*holder, "lock"), 0);
    auto waiter = helper({"lock", "tape0", "-1", "unlock", "last"});
    ASSERT_TRUE(waitUntil([&] { return heldBy("tape0", holder->pid(), 1); }));

    holder->signal(SIGKILL);
    EXPECT_EQ(holder->wait(), 128 + SIGKILL);
    EXPECT_GT(helperValue(*waiter, "lock"), 0) << "the waiter gets the lock the dead holder never gave back";
    EXPECT_EQ(helperValue(*waiter, "unlock"), 0);
    EXPECT_EQ(waiter->wait(), 0);
    // Granted, released because the holder ended, granted, unlocked.
    EXPECT_EQ(g_tapeEvents.waitFor(4), (e2e::Log{{"tape0", 1}, {"tape0", -1}, {"tape0", 1}, {"tape0", 0}}));
    EXPECT_EQ(OrvoRAUnregisterForNotification(registration), 0);
}

TEST_F(LockEndToEnd, ALockWaitOutlastsTheReplyDeadlineByItsOwnTimeOut) {
    kstest::ScopedEnv deadline("KSINTF_REPLY_TIMEOUT_MS", "1000");
    auto holder = helper({"lock", "belt0", "-1", "sleep", "2500", "unlock", "last"});
    ASSERT_GT(helperValue(*holder, "lock"), 0);
    const long handle = OrvoRAResourceLock("belt0", 60000);
    EXPECT_GT(handle, 0) << "granted after 2.5 s, beyond the 1 s reply deadline";
    EXPECT_EQ(OrvoRAResourceUnlock(handle), 0);
    EXPECT_EQ(holder->wait(), 0);
}

e2e::EventLog g_restartEvents;

TEST_F(LockEndToEnd, AcrossAKillOfKsdALiveHolderKeepsItsLockAndADeadOnesIsFreed) {
    const int registration =
        OrvoRARegisterForNotification("vat0", [](const char* name, int code) { g_restartEvents.add(name, code); });
    ASSERT_GE(registration, 0);
    auto live = helper({"lock", "keep0", "-1", "wait", "unlock", "last"});
    ASSERT_GT(helperValue(*live, "lock"), 0);
    auto dead = helper({"lock", "vat0", "-1", "hang"});
    const long deadHandle = helperValue(*dead, "lock");
    ASSERT_GT(deadHandle, 0);
    ASSERT_EQ(g_restartEvents.waitFor(1), (e2e::Log{{"vat0", 1}}));

    // The holder dies while ksd cannot see it.
    ASSERT_EQ(::kill(ksd_->pid(), SIGSTOP), 0);
    dead->signal(SIGKILL);
    EXPECT_EQ(dead->wait(), 128 + SIGKILL);
    ASSERT_TRUE(ksd_->restart(/*hard=*/true)) << ksd_->log();

    EXPECT_TRUE(heldBy("keep0", live->pid(), 0)) << queryDaemon("locks");
    EXPECT_EQ(OrvoRAResourceLock("keep0", 0), -110) << "still held by the live holder";
    // Nothing re-registers: the daemon brought the subscription back itself.
    EXPECT_EQ(g_restartEvents.waitFor(2), (e2e::Log{{"vat0", 1}, {"vat0", -1}})) << "released because its holder ended";
    const long taken = OrvoRAResourceLock("vat0", 0);
    EXPECT_GT(taken, deadHandle) << "the dead holder's lock is free, under a handle never given before";
    EXPECT_EQ(OrvoRAResourceUnlock(deadHandle), -2) << "an old holder's handle must never name a new lock";
    EXPECT_EQ(OrvoRAResourceUnlock(taken), 0);
    ASSERT_TRUE(live->writeLine("go"));
    EXPECT_EQ(helperValue(*live, "unlock"), 0) << "the live holder's old handle still names its lock";
    EXPECT_EQ(live->wait(), 0);
    EXPECT_EQ(OrvoRAUnregisterForNotification(registration), 0);
}

}  // namespace
