// The task-scheduler pieces that need no daemon: the date checks, the
// adapter that turns a notification into a task callback, and the decoding
// of pushed task records by TaskSchedulerCallback.

#include <gtest/gtest.h>

#include <memory>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "KSIntfInternal.h"
#include "OrvoCodec.h"
#include "OrvoException.h"
#include "OrvoPayloadConnection.h"
#include "TaskSchedulerCallback.h"

using KSInterface::Validate;

namespace {

TEST(TaskSchedulerDates, MonthLengthsFollowTheGregorianRule) {
    struct Case { int nDay, nMonth, nYear; bool bValid; };
    for (const Case& c : {Case{29, 2, 2028, true}, Case{29, 2, 2400, true}, Case{29, 2, 2100, false},
                          Case{29, 2, 2027, false}, Case{30, 2, 2400, false}, Case{28, 2, 2100, true},
                          Case{0, 4, 2027, true}})  // no lower bound here: the caller checks it
        EXPECT_EQ(Validate(c.nDay, c.nMonth, c.nYear, false), c.bValid) << c.nDay << "/" << c.nMonth << "/" << c.nYear;
    const int kLengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (int nMonth = 1; nMonth <= 12; ++nMonth) {
        EXPECT_TRUE(Validate(kLengths[nMonth - 1], nMonth, 2027, false)) << nMonth;
        EXPECT_FALSE(Validate(kLengths[nMonth - 1] + 1, nMonth, 2027, false)) << nMonth;
    }
}

std::vector<std::pair<int, int>> g_calls;

void record(int hTask, tTaskState state) { g_calls.emplace_back(hTask, state); }

TEST(TaskSchedulerAdapter, ParsesTheTextAndTakesTheFirstIntOfThePayload) {
    // The event name plays no part; "4294967303" is truncated to int, as strtol's long would be.
    const std::pair<const char*, std::int32_t> inputs[] = {
        {"15", cCompleted}, {"  -42xyz", cExit}, {"not a number", cWaiting}, {"4294967303", cInProgress}};
    for (auto [pszText, nState] : inputs) {
        OrvoNNNotification n{pszText, &nState, sizeof nState, reinterpret_cast<void*>(&record)};
        OrvoTSNotificationCallback("OrvoTSEvent:99$", &n);
    }
    // A payload too short for a state is dropped without being read (ASan
    // sees a read past the 3 bytes).
    for (long nLength : {0L, 3L}) {
        std::unique_ptr<char[]> spShort(new char[3]{1, 0, 0});
        OrvoNNNotification n{"16", nLength ? spShort.get() : nullptr, nLength, reinterpret_cast<void*>(&record)};
        OrvoTSNotificationCallback("OrvoTSEvent:16$", &n);
    }
    EXPECT_EQ(g_calls,
              (std::vector<std::pair<int, int>>{{15, cCompleted}, {-42, cExit}, {0, cWaiting}, {7, cInProgress}}));
}

// Feeds one pushed record (a text where the task id belongs, if asked); returns the bytes left unread.
std::size_t feed(KSInterface::TaskSchedulerCallback& callback, std::int16_t nState, std::int64_t nTaskId,
                 bool bTextForId = false) {
    std::string s;
    OrvoNet::Codec::putShort(s, 3);
    OrvoNet::Codec::putShort(s, nState);
    bTextForId ? OrvoNet::Codec::putString(s, "9") : OrvoNet::Codec::putLong(s, nTaskId);
    auto* pConnection = new OrvoNet::OrvoPayloadConnection(s);
    OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection> spConnection(pConnection);
    callback.doCallback(spConnection);
    return pConnection->remaining();
}

TEST(TaskSchedulerCallbackObject, DecodesShortStateAndLongTaskId) {
    OrvoSupport::OrvoSmartPointer<KSInterface::TaskSchedulerCallback> spTask(new KSInterface::TaskSchedulerCallback(5));
    g_calls.clear();
    spTask->setCallback(record);
    EXPECT_EQ(feed(*spTask, cCompleted, 0x100000009LL), 0u);
    EXPECT_EQ(g_calls, (std::vector<std::pair<int, int>>{{9, cCompleted}}));

    // All sixteen bits set widen to cExit; without a function the fields still change.
    spTask->setCallback(nullptr);
    EXPECT_EQ(feed(*spTask, static_cast<std::int16_t>(0xFFFF), -12), 0u);
    EXPECT_EQ(std::make_pair(spTask->getState(), spTask->getTaskId()), std::make_pair(cExit, -12));
    EXPECT_EQ(g_calls.size(), 1u);

    // A record of the wrong shape is an exception for the sink to log; it changes nothing it did not read.
    EXPECT_THROW(feed(*spTask, cInProgress, 0, true), OrvoSupport::OrvoException);
    EXPECT_EQ(std::make_pair(spTask->getState(), spTask->getTaskId()), std::make_pair(cInProgress, -12));
}

}  // namespace
