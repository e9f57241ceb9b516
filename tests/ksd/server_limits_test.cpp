// The daemon's accounting of what clients may make it hold: the budget of
// bytes for unfinished requests, and the rate limit of refusal log lines.

#include <gtest/gtest.h>

#include <memory>

#include "server/pending_budget.h"
#include "server/refusal_log.h"

namespace {

using ksd::PendingBudget;
using ksd::RefusalLog;

TEST(PendingBudget, AUserOverItsShareStopsAloneAndResumesWhenBytesReturn) {
    PendingBudget budget(100, 250);
    budget.hold(1000, 100);
    EXPECT_FALSE(budget.mayRead(1000, false, true)) << "at its own budget";
    EXPECT_TRUE(budget.mayRead(1001, false, false)) << "another user is not slowed";
    EXPECT_TRUE(budget.mayRead(0, true, true)) << "root is bound only by the daemon-wide budget";

    int resumed = 0;
    auto alive = std::make_shared<int>(0);
    auto gone = std::make_shared<int>(0);
    budget.waitForRoom(alive, [&] { ++resumed; });
    budget.waitForRoom(gone, [&] { resumed += 100; });
    gone.reset();
    budget.release(1000, 60);
    EXPECT_EQ(resumed, 1) << "a waiter is woken once, a closed one never";
    budget.release(1000, 40);
    EXPECT_EQ(resumed, 1);
    EXPECT_EQ(budget.heldBy(1000), 0u);
    EXPECT_TRUE(budget.mayRead(1000, false, true));
}

TEST(PendingBudget, TheDaemonWideBudgetStopsOnlyRequestsAlreadyBegun) {
    PendingBudget budget(100, 150);
    budget.hold(1000, 90);
    budget.hold(1001, 60);
    EXPECT_EQ(budget.held(), 150u);
    EXPECT_FALSE(budget.mayRead(1002, false, true)) << "a begun request waits for room";
    EXPECT_TRUE(budget.mayRead(1002, false, false)) << "a new small request is still read";
    EXPECT_FALSE(budget.mayRead(0, true, true)) << "root holding bytes waits like anyone";
    budget.release(1001, 60);
    EXPECT_TRUE(budget.mayRead(1002, false, true));
}

TEST(RefusalLog, OneLinePerUserPerIntervalCarryingTheCount) {
    RefusalLog log(std::chrono::seconds(60));
    const auto t0 = RefusalLog::Clock::time_point{} + std::chrono::hours(1);
    EXPECT_EQ(log.refused(1000, t0), 1u) << "the first refusal is logged at once";
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(log.refused(1000, t0 + std::chrono::seconds(i + 1)));
    EXPECT_EQ(log.refused(1001, t0 + std::chrono::seconds(2)), 1u) << "each user has its own line";
    EXPECT_FALSE(log.refused(1000, t0 + std::chrono::seconds(59)));
    EXPECT_EQ(log.refused(1000, t0 + std::chrono::seconds(61)), 7u) << "the line counts every refusal since the last";
}

}  // namespace
