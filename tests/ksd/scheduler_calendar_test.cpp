// The scheduler's calendar with the zone set by the test: month ends, leap
// days, year ends, daylight-saving gaps and overlaps, boot tasks and the rule
// that a long downtime yields one run, not one per missed period.
#include <gtest/gtest.h>

#include <cstdlib>

#include "services/scheduler/calendar.h"

namespace {

using namespace ksd::sched;

std::time_t gmt(int y, int mo, int d, int h, int mi, int s = 0) {
    return resolveWallTime(y, mo, d, h, mi, s, Zone::Gmt);
}

class Calendar : public ::testing::Test {
protected:
    void useZone(const char* tz) {
        ::setenv("TZ", tz, 1);
        ::tzset();
    }
    void TearDown() override {
        ::unsetenv("TZ");
        ::tzset();
    }
    // The successive runs of `s` after its first one.
    static std::vector<std::string> runs(const Schedule& s, Zone zone, int count) {
        std::vector<std::string> out;
        std::optional<std::time_t> t = firstRun(s, zone, resolveWallTime(s.year, s.month, s.day, 0, 0, 0, zone) - 1);
        for (int i = 0; i < count && t; ++i, t = nextRunAfter(s, zone, *t)) out.push_back(formatTime(*t, zone));
        return out;
    }
};

// A monthly task on a day the month lacks runs on its last day and comes back.
TEST_F(Calendar, MonthEndsLeapDaysAndYearEnds) {
    useZone("Europe/Berlin");
    const Schedule on31{Frequency::Monthly, 2024, 1, 31, 8, 15, 0};
    EXPECT_EQ(runs(on31, Zone::Local, 5),
              (std::vector<std::string>{"2024-01-31 08:15:00", "2024-02-29 08:15:00", "2024-03-31 08:15:00",
                                        "2024-04-30 08:15:00", "2024-05-31 08:15:00"}));
    useZone("America/New_York");
    EXPECT_EQ(runs({Frequency::Daily, 2024, 2, 28, 23, 59, 59}, Zone::Local, 3),
              (std::vector<std::string>{"2024-02-28 23:59:59", "2024-02-29 23:59:59", "2024-03-01 23:59:59"}));
    EXPECT_EQ(runs({Frequency::Daily, 2025, 12, 31, 23, 59, 59}, Zone::Gmt, 2),
              (std::vector<std::string>{"2025-12-31 23:59:59", "2026-01-01 23:59:59"}));
    EXPECT_TRUE(isValidSchedule({Frequency::OneTime, 2028, 2, 29, 0, 0, 0}));
    EXPECT_FALSE(isValidSchedule({Frequency::OneTime, 2100, 2, 29, 0, 0, 0}));
    EXPECT_FALSE(isValidSchedule({Frequency::Monthly, 2025, 4, 31, 0, 0, 0}));
    EXPECT_FALSE(isValidSchedule({Frequency::Daily, 2025, 4, 1, 24, 0, 0}));
}

TEST_F(Calendar, AWallTimeInTheSpringGapRunsAtTheFirstValidMomentAfterIt) {
    useZone("Europe/Berlin");  // 2025-03-30: 02:00 CET becomes 03:00 CEST
    EXPECT_EQ(resolveWallTime(2025, 3, 30, 2, 30, 0, Zone::Local), gmt(2025, 3, 30, 1, 0));
    const Schedule daily{Frequency::Daily, 2025, 3, 29, 2, 30, 0};
    std::time_t t = *firstRun(daily, Zone::Local, gmt(2025, 3, 29, 0, 0));
    EXPECT_EQ(t, gmt(2025, 3, 29, 1, 30));
    t = *nextRunAfter(daily, Zone::Local, t);
    EXPECT_EQ(formatTime(t, Zone::Local), "2025-03-30 03:00:00");
    t = *nextRunAfter(daily, Zone::Local, t);
    EXPECT_EQ(t, gmt(2025, 3, 31, 0, 30));
    useZone("America/New_York");  // 2025-03-09: 02:00 EST becomes 03:00 EDT
    EXPECT_EQ(resolveWallTime(2025, 3, 9, 2, 0, 0, Zone::Local), gmt(2025, 3, 9, 7, 0));
}

TEST_F(Calendar, AWallTimeInTheAutumnOverlapRunsOnce) {
    useZone("Europe/Berlin");  // 2025-10-26: 03:00 CEST becomes 02:00 CET, 02:30 happens twice
    const Schedule daily{Frequency::Daily, 2025, 10, 25, 2, 30, 0};
    std::time_t t = *firstRun(daily, Zone::Local, gmt(2025, 10, 24, 0, 0));
    t = *nextRunAfter(daily, Zone::Local, t);
    EXPECT_EQ(t, gmt(2025, 10, 26, 0, 30)) << "the first 02:30, still in summer time";
    t = *nextRunAfter(daily, Zone::Local, t);
    EXPECT_EQ(t, gmt(2025, 10, 27, 1, 30)) << "the repeated 02:30 must not run again";
    useZone("America/New_York");  // 2025-11-02: 01:30 happens twice
    EXPECT_EQ(resolveWallTime(2025, 11, 2, 1, 30, 0, Zone::Local), gmt(2025, 11, 2, 5, 30));
    EXPECT_EQ(*nextRunAfter({Frequency::Daily, 2025, 11, 1, 1, 30, 0}, Zone::Local, gmt(2025, 11, 2, 5, 30)),
              gmt(2025, 11, 3, 6, 30));
}

TEST_F(Calendar, BootTasksHaveNoCalendarTimeAndAcceptAnyFields) {
    const Schedule boot{Frequency::BootTime, 0, 99, -1, -1, 77, 0};
    EXPECT_TRUE(isValidSchedule(boot));
    EXPECT_FALSE(firstRun(boot, Zone::Local, 1000));
    EXPECT_FALSE(nextRunAfter(boot, Zone::Local, 1000));
}

TEST_F(Calendar, MissedPeriodsCollapseIntoOneRun) {
    useZone("UTC");
    const Schedule daily{Frequency::Daily, 2025, 1, 1, 9, 0, 0};
    // Down from 2025-01-02 until 2025-01-12 10:00: the next run is the 13th, not the 3rd.
    EXPECT_EQ(*nextRunAfter(daily, Zone::Local, gmt(2025, 1, 12, 10, 0)), gmt(2025, 1, 13, 9, 0));
    EXPECT_EQ(*nextRunAfter({Frequency::Weekly, 2025, 1, 1, 9, 0, 0}, Zone::Gmt, gmt(2025, 3, 1, 0, 0)),
              gmt(2025, 3, 5, 9, 0));
    // Scheduled after its first time had passed: a recurring task waits for its next period,
    // a one-time task runs at once.
    EXPECT_EQ(*firstRun(daily, Zone::Gmt, gmt(2025, 1, 1, 10, 0)), gmt(2025, 1, 2, 9, 0));
    EXPECT_EQ(*firstRun({Frequency::OneTime, 2025, 1, 1, 9, 0, 0}, Zone::Gmt, gmt(2025, 1, 1, 10, 0)),
              gmt(2025, 1, 1, 10, 0));
    EXPECT_FALSE(nextRunAfter({Frequency::OneTime, 2025, 1, 1, 9, 0, 0}, Zone::Gmt, gmt(2024, 1, 1, 0, 0)));
}

}  // namespace
