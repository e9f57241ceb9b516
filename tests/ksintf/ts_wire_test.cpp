// The task-scheduler family against the fake daemon: the typed fields each
// request writes, the argument checks that keep a request from going out,
// the buffer protocols of the text and blob replies, failures turned into
// negative codes, and task events delivered through the callback sink.

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "OrvoTaskScheduler.h"
#include "away_from_midnight.h"
#include "fake_daemon.h"

using namespace kstest;

namespace {

class TaskSchedulerWireTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_daemon.start());
        m_env = std::make_unique<ScopedEnv>("KSINTF_CONN_TYPE", m_daemon.connType());
    }
    // Expects a request of the shape "... s:.. l:.. i:.. r:.." (a raw's length is the field before it).
    void expect(const std::string& sShape, std::string sReply, const std::string& sService = "Scheduler") {
        std::vector<Field> fields;
        for (std::size_t i = 0; (i = sShape.find(':', i + 1)) != std::string::npos;) {
            const char k = sShape[i - 1];
            fields.push_back(k == 's'   ? Field::String()
                             : k == 'l' ? Field::Long()
                                        : (k == 'i' ? Field::Int() : Field::RawFrom(fields.size() - 1)));
        }
        m_daemon.expect(
            Script{.service = sService, .fields = fields, .reply = std::move(sReply), .closeAfterReply = true});
    }
    Request lastRequest() {
        EXPECT_TRUE(m_daemon.waitForRequests(m_daemon.requestCount()));
        return m_daemon.request(m_daemon.requestCount() - 1);
    }
    FakeDaemon m_daemon;
    std::unique_ptr<ScopedEnv> m_env;
};

// "Request s:text l:long i:int r:raw ..." as the daemon recorded it.
std::string recorded(const Request& r) {
    std::string s = r.request;
    for (const auto& v : r.values)  // letters by Kind: Short, Int, Long, Bool, String, Raw
        s += std::string(" ") + "hilbsr"[static_cast<int>(v.kind)] + ":" +
             (v.kind >= Kind::String ? v.text : std::to_string(v.integer));
    return s;
}

int nextYear(bool bLeap) {
    int nYear = KSInterface::GetYear() + 1;
    while (((nYear % 4 == 0 && nYear % 100 != 0) || nYear % 400 == 0) != bLeap) ++nYear;
    return nYear;
}

int scheduleOn(int nMonth, int nDay, int nYear, int nHour = 12, int nMinute = 0, int nSecond = 0,
               tTaskFrequency frequency = cOneTime) {
    return OrvoTSScheduleTask("t", "/bin/true", "/", "", frequency, nMonth, nDay, nYear, nHour, nMinute, nSecond,
                              "log");
}

const std::string kBlob("\x00\x01zz\xff\x00", 6);

TEST_F(TaskSchedulerWireTest, EachRequestWritesItsFieldsAndNarrowsTheReply) {
    const std::string sYear = std::to_string(KSInterface::GetYear() + 1);
    const auto allBits = static_cast<tTaskFrequency>(0xFFFFFFFFu);  // widened without sign, sent as an int in blobs
    struct Case { std::int64_t nReply; std::function<long()> call; long nResult; std::string sRecorded; };
    const Case cases[] = {
        {0x100000000LL + 42, [&] { return scheduleOn(3, 15, std::stoi(sYear), 23, 59, 58, cWeekly); }, 42,
         "TRVX_TS_SCHEDULE s:t s:/bin/true s:/ s: l:1 l:3 l:15 l:" + sYear + " l:23 l:59 l:58 s:log"},
        // At boot time nothing is checked and the numbers keep their signs.
        {-17, [] { return scheduleOn(0, 99, -5, -1, 77, -2, cBootTime); }, -17,
         "TRVX_TS_SCHEDULE s:t s:/bin/true s:/ s: l:4 l:0 l:99 l:-5 l:-1 l:77 l:-2 s:log"},
        {1, [&] { return scheduleOn(1, 1, std::stoi(sYear), 0, 0, 0, allBits); }, 1,
         "TRVX_TS_SCHEDULE s:t s:/bin/true s:/ s: l:4294967295 l:1 l:1 l:" + sYear + " l:0 l:0 l:0 s:log"},
        {2, [&] { return OrvoTSScheduleBlobTask("b", 1, "z", allBits, 1, 1, 1, 1, 1, 1); }, 2,
         "TRVX_TS_SCHEDULE_BLOB s:b i:1 r:z i:-1 i:1 i:1 i:1 i:1 i:1 i:1"},
        {77, [] { return OrvoTSScheduleBlobTask("blob", 6, kBlob.data(), cBootTime, 13, 0, 1999, -1, 61, 99); }, 77,
         "TRVX_TS_SCHEDULE_BLOB s:blob i:6 r:" + kBlob + " i:4 i:13 i:0 i:1999 i:-1 i:61 i:99"},
        {0x7FFFFFFF00000002LL, [] { return OrvoTSCancelTask(-6); }, 2, "TRVX_TS_CANCEL l:-6"},
        {0x7FFFFFFF00000002LL, [] { return OrvoTSExitCode(-6); }, 2, "TRVX_TS_EXIT_CODE l:-6"},
        {0x7FFFFFFF00000002LL, [] { return long{OrvoTSTaskState(-6)}; }, 2, "TRVX_TS_TASK_STATE l:-6"},
        {-1, [] { return long{OrvoTSTaskState(3)}; }, cExit, "TRVX_TS_TASK_STATE l:3"},
        {12, [] { return OrvoTSScheduledTaskLookup("nightly"); }, 12, "TRVX_TS_SCHEDULED_TASK_LOOKUP s:nightly"},
    };
    for (const Case& c : cases) {
        expect(c.sRecorded, Wire().addLong(c.nReply).bytes());
        EXPECT_EQ(c.call(), c.nResult) << c.sRecorded;
        const Request r = lastRequest();
        EXPECT_TRUE(r.complete && r.version == 1 && r.magic == 7777 && r.service == "Scheduler") << c.sRecorded;
        EXPECT_EQ(recorded(r), c.sRecorded);
    }
}

TEST_F(TaskSchedulerWireTest, ScheduleTaskChecksInTheirOddCodeOrderWithoutContactingTheDaemon) {
    kstest::awayFromMidnight();
    const int nThis = KSInterface::GetYear(), nLeap = nextYear(true), nPlain = nextYear(false);
    struct Case { int nMonth, nDay, nYear, nHour, nMinute, nSecond, nCode; };
    // The month first, day 0 before the month length, the year (-4) before the month length (-3).
    for (const Case& c : {Case{0, 0, nThis - 1, 99, 0, 0, -1}, {13, 1, nLeap, 12, 0, 0, -1},
                          {4, 0, nLeap, 12, 0, 0, -2}, {4, 32, nLeap, 12, 0, 0, -2}, {4, 31, nThis - 1, 12, 0, 0, -4},
                          {4, 31, nLeap, 12, 0, 0, -3}, {2, 29, nPlain, 12, 0, 0, -3}, {2, 30, nLeap, 12, 0, 0, -3},
                          {6, 1, nLeap, 24, 0, 0, -5}, {6, 1, nLeap, -1, 0, 0, -5}, {6, 1, nLeap, 0, 60, 0, -6},
                          {6, 1, nLeap, 0, 0, 60, -7}, {6, 1, nLeap, 0, 0, -1, -7}})
        EXPECT_EQ(scheduleOn(c.nMonth, c.nDay, c.nYear, c.nHour, c.nMinute, c.nSecond), c.nCode)
            << c.nMonth << "/" << c.nDay << "/" << c.nYear << " " << c.nHour << ":" << c.nMinute << ":" << c.nSecond;

    // A date before today within this year: -8, but only once the time fields pass.
    const std::time_t now = std::time(nullptr), yesterday = now - 24 * 60 * 60;
    std::tm y{}, t{};
    localtime_r(&yesterday, &y);
    localtime_r(&now, &t);
    if (y.tm_year + 1900 == nThis) {
        EXPECT_EQ(scheduleOn(y.tm_mon + 1, y.tm_mday, nThis, 24), -5);
        EXPECT_EQ(scheduleOn(y.tm_mon + 1, y.tm_mday, nThis), -8);
    }
    EXPECT_EQ(m_daemon.connectionCount(), 0);

    // Valid dates do go out: 29 February of a leap year, and today at an hour already past.
    for (const auto& [nMonth, nDay, nYear] : {std::tuple{2, 29, nLeap}, {t.tm_mon + 1, t.tm_mday, t.tm_year + 1900}}) {
        expect("s: s: s: s: l: l: l: l: l: l: l: s:", Wire().addLong(5).bytes());
        EXPECT_EQ(scheduleOn(nMonth, nDay, nYear, 0, 0, 0), 5);
    }
}

TEST_F(TaskSchedulerWireTest, ArgumentErrorsNeverReachTheDaemon) {
    char c = 'x';
    int nSize = 10, nMinus = -1, nFrequency = 0;
    const auto blob = [](const char* pszName, int nLength, const char* pData) {
        return OrvoTSScheduleBlobTask(pszName, nLength, pData, cDaily, 1, 1, 2000, 0, 0, 0);
    };
    const std::function<int()> calls[] = {
        [&] { return OrvoTSListAllExecTasks(nullptr, &c); }, [&] { return OrvoTSListAllExecTasks(&nMinus, &c); },
        [&] { return OrvoTSListAllBlobTasks(&nSize, nullptr); }, [&] { return OrvoTSRetrieveBlobTask(1, &nMinus, &c); },
        [&] { return OrvoTSScheduledTaskGetNextTime(31, &nSize, &c, nullptr); },
        [&] { return OrvoTSScheduledTaskGetNextTime(31, &nMinus, &c, &nFrequency); },
        [&] { return blob(nullptr, 1, &c); }, [&] { return blob("b", 0, &c); }, [&] { return blob("b", 1, nullptr); },
        [&] { return OrvoTSRetrieveBlobTask(1, nullptr, &c); },
        [&] { return OrvoTSRetrieveBlobTask(1, &nSize, nullptr); }};
    for (const auto& call : calls) EXPECT_EQ(call(), -14);
    EXPECT_TRUE(nSize == 10 && nMinus == -1 && c == 'x');
    EXPECT_EQ(m_daemon.connectionCount(), 0);
}

TEST_F(TaskSchedulerWireTest, TextAndBlobRepliesFollowTheBufferProtocol) {
    const std::string sList = "1;backup|2;report", sWhen = "2031-05-04 10:00:00";
    const int nList = static_cast<int>(sList.size()), nWhen = static_cast<int>(sWhen.size());
    std::vector<char> exec(64, 'x'), blobs(64, 'x'), when(64, 'x'), blob(8, 'x');
    int nFrequency = -99;
    const auto list = Wire().addLong(0).addString(sList).bytes(), status = Wire().addLong(7).bytes();
    const auto next = [&](int nFreq) { return Wire().addLong(0).addString(sWhen).addInt(nFreq).bytes(); };
    const auto retrieved = Wire().addLong(0).addInt(6).addRaw(kBlob).bytes();
    struct Target { std::function<int(int*)> call; std::string sRecorded; };
    const Target E{[&](int* p) { return OrvoTSListAllExecTasks(p, exec.data()); }, "TRVX_TS_LIST_EXEC"};
    const Target B{[&](int* p) { return OrvoTSListAllBlobTasks(p, blobs.data()); }, "TRVX_TS_LIST_BLOB"};
    const Target N{[&](int* p) { return OrvoTSScheduledTaskGetNextTime(31, p, when.data(), &nFrequency); },
                   "TRVX_TS_GET_NEXT_TIME l:31"};
    const Target R{[&](int* p) { return OrvoTSRetrieveBlobTask(77, p, blob.data()); }, "TRVX_TS_RETRIEVE_BLOB l:77"};
    // Text: exactly its length leaves no room for the zero, 0 asks the size, a status leaves the length alone,
    // and with room the capacity past the text is zero-filled. The frequency is read only when the text fitted.
    // A blob needs no zero and fits a buffer of exactly its size.
    struct Step { const Target* t; std::string sReply; int nCapacity, nResult, nSizeAfter; };
    for (const Step& st : {Step{&E, list, nList, -12, nList + 1}, {&E, list, 0, -12, nList + 1},
                           {&E, status, 50, 7, 50}, {&E, list, nList + 4, 0, nList + 1},
                           {&B, list, nList, -12, nList + 1}, {&B, list, nList + 4, 0, nList + 1},
                           {&N, next(cMonthly), 64, 0, nWhen + 1}, {&N, next(cDaily), nWhen, -12, nWhen + 1},
                           {&N, status, 5, 7, 5}, {&R, retrieved, 5, -12, 6}, {&R, status, 3, 7, 3},
                           {&R, retrieved, 6, 0, 6}}) {
        expect(st.t->sRecorded, st.sReply);
        int nSize = st.nCapacity;
        EXPECT_EQ(st.t->call(&nSize), st.nResult) << st.t->sRecorded << " " << st.nCapacity;
        EXPECT_EQ(nSize, st.nSizeAfter) << st.t->sRecorded << " " << st.nCapacity;
        EXPECT_EQ(recorded(lastRequest()), st.t->sRecorded);
    }
    for (const auto& buffer : {exec, blobs})
        EXPECT_EQ(std::string(buffer.data(), nList + 5), sList + std::string(4, '\0') + "x");
    EXPECT_EQ(std::string(when.data()), sWhen);
    EXPECT_EQ(nFrequency, cMonthly);
    EXPECT_EQ(std::string(blob.data(), blob.size()), kBlob + "xx");
}

TEST_F(TaskSchedulerWireTest, ExecutionInformationCopiesTheTextAndReportsItsLength) {
    const std::string sWhen = "2030-01-02 03:04:05";
    // Too small: -1, the long is not read, the size is that of what the buffer already held.
    char buffer[32] = "old";
    int nSize = static_cast<int>(sWhen.size());
    expect("l: l:", Wire().addString(sWhen).addLong(0).bytes());
    EXPECT_EQ(OrvoTSExecutionInformation(9, buffer, &nSize), -1);
    EXPECT_STREQ(buffer, "old");
    EXPECT_EQ(nSize, 3);
    nSize = sizeof(buffer);
    expect("l: l:", Wire().addString(sWhen).addLong(0x100000003LL).bytes());
    EXPECT_EQ(OrvoTSExecutionInformation(9, buffer, &nSize), 3);
    EXPECT_EQ(recorded(lastRequest()), "TRVX_TS_EXECUTION_INFO l:9 l:32");
    EXPECT_EQ(std::string(buffer), sWhen);
    EXPECT_EQ(nSize, static_cast<int>(sWhen.size()));
}

TEST_F(TaskSchedulerWireTest, FailedExchangesReturnMinusTheCode) {
    char buffer[16] = "keep";
    int nSize = sizeof(buffer), nFrequency = 0;
    m_daemon.expect(Script{.service = "Scheduler", .fields = {Field::Long()}, .errorCode = 38});
    EXPECT_EQ(OrvoTSCancelTask(1), -38);
    // Closing in the middle of the reply.
    m_daemon.expect(Script{.service = "Scheduler", .fields = {Field::Long()},
                           .reply = Wire().addLong(0).addString("2030").bytes(), .closeAfterReplyBytes = 12});
    EXPECT_EQ(OrvoTSScheduledTaskGetNextTime(1, &nSize, buffer, &nFrequency), -104);
    m_daemon.stop();
    EXPECT_EQ(scheduleOn(1, 1, KSInterface::GetYear() + 1), -111);
    EXPECT_EQ(OrvoTSRetrieveBlobTask(1, &nSize, buffer), -111);
    EXPECT_EQ(nSize, 16);
    // A failed exchange reports the length of the error text but copies nothing.
    EXPECT_EQ(OrvoTSExecutionInformation(1, buffer, &nSize), -111);
    EXPECT_EQ(nSize, 30);
    EXPECT_STREQ(buffer, "keep");
}

// Task events seen by the C callback; it runs on the sink's thread.
std::mutex g_mutex;
std::vector<std::pair<int, int>> g_taskEvents;

void onTask(int hTask, tTaskState state) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_taskEvents.emplace_back(hTask, state);
}

TEST_F(TaskSchedulerWireTest, RegistrationNeedsALiveTaskAndDeliversStateChanges) {
    // A task in state cExit and a failed query are refused, without asking the notifier.
    expect("l:", Wire().addLong(cExit).bytes());
    m_daemon.expect(Script{.service = "Scheduler", .fields = {Field::Long()}, .errorCode = 13});
    for (int i = 0; i < 2; ++i) EXPECT_EQ(OrvoTSRegisterForNotification(7, onTask), -9);
    EXPECT_EQ(m_daemon.requestCount(), 2u);

    expect("l:", Wire().addLong(cWaiting).bytes());
    expect("s: s: i:", Wire().addInt(0).bytes(), "Notifier");
    const int h = OrvoTSRegisterForNotification(7, onTask);
    ASSERT_GT(h, 0);
    const Request reg = lastRequest();
    EXPECT_EQ(recorded(m_daemon.request(2)), "TRVX_TS_TASK_STATE l:7");
    EXPECT_EQ(reg.text(0), "OrvoTSEvent:7$");
    const std::int32_t nState = cCompleted;
    ASSERT_TRUE(m_daemon.push(reg.text(1), h,
                              Wire().addString("ksd").addString(reg.text(0)).addString("7").addLong(sizeof(nState))
                                  .addRaw({reinterpret_cast<const char*>(&nState), sizeof(nState)}).bytes()));
    for (int i = 0; i < 500 && [] { std::lock_guard<std::mutex> lock(g_mutex); return g_taskEvents.empty(); }(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    // Unregistration is the notification network's, result and all.
    expect("s: i:", Wire().addInt(-2).bytes(), "Notifier");
    EXPECT_EQ(OrvoTSUnregisterForNotification(h), -2);
    EXPECT_EQ(lastRequest().integer(1), h);
    std::lock_guard<std::mutex> lock(g_mutex);
    EXPECT_EQ(g_taskEvents, (std::vector<std::pair<int, int>>{{7, cCompleted}}));
}

}  // namespace
