// Every family of the client library against a scripted daemon: the fields
// each call writes and how its reply is narrowed, failures turned into minus
// the code, argument checks that keep a request from going out, the buffer
// protocols of text and blob replies, and pushed events reaching the caller.
#include <gtest/gtest.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <thread>
#include <tuple>

#include "JobStatusCallback.h"
#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "NotificationNetworkCallback.h"
#include "OrvoJobStatus.h"
#include "OrvoNotificationNetwork.h"
#include "OrvoPayloadConnection.h"
#include "OrvoResourceArbitration.h"
#include "OrvoStreamConnection.h"
#include "OrvoTaskScheduler.h"
#include "ResourceArbitrationCallback.h"
#include "TaskSchedulerCallback.h"
#include "fake_daemon.h"
#include "wait_until.h"

using namespace kstest;
using KSInterface::KSIntfLibrary;
using Events = std::vector<std::string>;

namespace {
// While set, getrandom (interposed below for the library) gives zeros: the
// callback sink's names become predictable, so a test can take them all first.
std::atomic<bool> g_bZeroRandom{false};
}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t getrandom(void* pBuf, size_t nLength, unsigned int nFlags) {
    if (!g_bZeroRandom) return ::syscall(SYS_getrandom, pBuf, nLength, nFlags);
    std::memset(pBuf, 0, nLength);
    return static_cast<ssize_t>(nLength);
}

namespace {

// The bytes of the request a record names: "Service Request" and its fields,
// s:string n:long i:int r:raw run (a field starts at a space, a letter and a colon).
std::string wireOf(const std::string& sRecord) {
    const std::size_t nName = sRecord.find(' ') + 1;
    std::size_t nAt = sRecord.find(' ', nName);
    Wire wire = requestWire(sRecord.substr(0, nName - 1), sRecord.substr(nName, nAt - nName));
    while (nAt != std::string::npos) {
        const char k = sRecord[nAt + 1];
        std::size_t nEnd = nAt + 3;
        while ((nEnd = sRecord.find(' ', nEnd)) != std::string::npos && sRecord.compare(nEnd + 2, 1, ":") != 0) ++nEnd;
        const std::string sValue = sRecord.substr(nAt + 3, nEnd - nAt - 3);
        k == 's'   ? wire.addString(sValue)
        : k == 'n' ? wire.addLong(std::stoll(sValue))
        : k == 'i' ? wire.addInt(std::stoi(sValue))
                   : wire.addRaw(sValue);
        nAt = nEnd;
    }
    return wire.bytes();
}

// Deliveries to the C callbacks of every family, made on the sink's thread.
Notes g_events;
void onNotification(const char* pszEvent, OrvoNNNotification* pN) {
    const char* pData = static_cast<const char*>(pN->m_pData);
    g_events.add(std::string(pszEvent) + "|" + pN->m_pszData + "|" +
                 (pData ? std::string(pData, static_cast<std::size_t>(pN->m_nDataLength)) : "null") + "|" +
                 std::to_string(pN->m_nDataLength));
}
void onJob(const char* pszName, tOrvoJSEEvent event) {
    g_events.add("J:" + std::string(pszName) + " " + std::to_string(event));
}
void onLock(const char* pszName, int nCode) { g_events.add("L:" + std::string(pszName) + " " + std::to_string(nCode)); }
void onTask(int hTask, tTaskState state) { g_events.add("T:" + std::to_string(hTask) + " " + std::to_string(state)); }

// What the daemon pushes for an event: sender, event, text, length, bytes.
std::string notification(const std::string& sEvent, const std::string& sXml, const std::string& sData, long nLength) {
    return Wire().addString("ksd").addString(sEvent).addString(sXml).addLong(nLength).addRaw(sData);
}

int scheduleOn(int nMonth, int nDay, int nYear, int nHour = 12, int nMinute = 0, int nSecond = 0,
               tTaskFrequency frequency = cOneTime) {
    return OrvoTSScheduleTask("t", "/bin/true", "/", "", frequency, nMonth, nDay, nYear, nHour, nMinute, nSecond,
                              "log");
}

int nextYear(bool bLeap) {
    int nYear = KSInterface::GetYear() + 1;
    while (((nYear % 4 == 0 && nYear % 100 != 0) || nYear % 400 == 0) != bLeap) ++nYear;
    return nYear;
}

const std::string kBlob("\x00\x01zz\xff\x00", 6);

class WireTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_daemon.start()); }
    void TearDown() override {
        KSIntfLibrary::deleteSharedLibraryConnection();
        KSIntfLibrary::deleteInstance();
        g_events.take(0);
    }
    void expect(std::string sReply) { m_daemon.expect({std::move(sReply)}); }
    Request last() { return m_daemon.requests().back(); }
    FakeDaemon m_daemon;
    ScopedEnv m_env{"KSINTF_CONN_TYPE", m_daemon.connType()};
};

TEST_F(WireTest, EachCallWritesItsFieldsAndNarrowsTheReply) {
    const std::string sYear = std::to_string(KSInterface::GetYear() + 1);
    const auto allBits = static_cast<tTaskFrequency>(0xFFFFFFFFu);  // widened without sign; an int in blobs
    int aiAppID[3] = {11, -12, 13}, nCount = -77;
    OrvoJSEJob jobs[2] = {{1, 2}, {3, 4}};
    char data[] = {'a', '\0', 'c'};
    OrvoNNNotification n{"<x a='1'/>", data, 3, nullptr}, empty{"", nullptr, 0, nullptr};
    struct Case {
        std::int64_t nReply;
        std::function<long()> call;
        long nResult;
        std::string sRecord;
    };
    const Case cases[] = {
        {(1L << 32) + 5, [&] { return OrvoNNNotify("nn.event", &n); }, 5,
         "Notifier TRVX_NN_NOTIFY s:udp:127.0.0.1:0 s:nn.event s:<x a='1'/> n:3 r:" + std::string(data, 3)},
        {-1, [&] { return OrvoNNNotify("other", &empty); }, -1,
         "Notifier TRVX_NN_NOTIFY s:udp:127.0.0.1:0 s:other s: n:0 r:"},
        {0x100000000LL + 42, [&] { return scheduleOn(3, 15, std::stoi(sYear), 23, 59, 58, cWeekly); }, 42,
         "Scheduler TRVX_TS_SCHEDULE s:t s:/bin/true s:/ s: n:1 n:3 n:15 n:" + sYear + " n:23 n:59 n:58 s:log"},
        // At boot time nothing is checked and the numbers keep their signs.
        {-17, [] { return scheduleOn(0, 99, -5, -1, 77, -2, cBootTime); }, -17,
         "Scheduler TRVX_TS_SCHEDULE s:t s:/bin/true s:/ s: n:4 n:0 n:99 n:-5 n:-1 n:77 n:-2 s:log"},
        {1, [&] { return scheduleOn(1, 1, std::stoi(sYear), 0, 0, 0, allBits); }, 1,
         "Scheduler TRVX_TS_SCHEDULE s:t s:/bin/true s:/ s: n:4294967295 n:1 n:1 n:" + sYear + " n:0 n:0 n:0 s:log"},
        {2, [&] { return OrvoTSScheduleBlobTask("b", 1, "z", allBits, 1, 1, 1, 1, 1, 1); }, 2,
         "Scheduler TRVX_TS_SCHEDULE_BLOB s:b i:1 r:z i:-1 i:1 i:1 i:1 i:1 i:1 i:1"},
        {77, [] { return OrvoTSScheduleBlobTask("blob", 6, kBlob.data(), cBootTime, 13, 0, 1999, -1, 61, 99); }, 77,
         "Scheduler TRVX_TS_SCHEDULE_BLOB s:blob i:6 r:" + kBlob + " i:4 i:13 i:0 i:1999 i:-1 i:61 i:99"},
        {0x7FFFFFFF00000002LL, [] { return OrvoTSCancelTask(-6); }, 2, "Scheduler TRVX_TS_CANCEL n:-6"},
        {0x7FFFFFFF00000002LL, [] { return OrvoTSExitCode(-6); }, 2, "Scheduler TRVX_TS_EXIT_CODE n:-6"},
        {-1, [] { return long{OrvoTSTaskState(3)}; }, cExit, "Scheduler TRVX_TS_TASK_STATE n:3"},
        {12, [] { return OrvoTSScheduledTaskLookup("nightly"); }, 12,
         "Scheduler TRVX_TS_SCHEDULED_TASK_LOOKUP s:nightly"},
        {7, [] { return OrvoJSECreateJob("nightly backup", "backup"); }, 7,
         "JobStatus TRVX_JS_CREATE s:nightly backup s:backup"},
        {7, [] { return OrvoJSELookupJob("backup"); }, 7, "JobStatus TRVX_JS_LOOKUP s:backup"},
        {0x100000005LL, [] { return OrvoJSESetJobProgress(-3, 40); }, 5, "JobStatus TRVX_JS_SET_PROGRESS n:-3 n:40"},
        {40, [] { return OrvoJSEGetJobProgress(7); }, 40, "JobStatus TRVX_JS_GET_PROGRESS n:7"},
        {-2, [] { return OrvoJSECancelJob(8); }, -2, "JobStatus TRVX_JS_CANCEL n:8"},
        {0, [] { return OrvoJSEDeleteJob(9); }, 0, "JobStatus TRVX_JS_DELETE n:9"},
        // One long per application, none for a count below one.
        {0, [&] { return OrvoJSEMapJobIDToAppID(4, 3, aiAppID); }, 0,
         "JobStatus TRVX_JS_MAP_JOB n:4 n:3 n:11 n:-12 n:13"},
        {0, [] { return OrvoJSEMapJobIDToAppID(4, -1, nullptr); }, 0, "JobStatus TRVX_JS_MAP_JOB n:4 n:-1"},
        {3, [&] { return OrvoJSEGetAllJobProgress(&nCount, jobs); }, 3, "JobStatus TRVX_JS_GET_ALL_PROGRESS"},
        {8589934591LL, [] { return OrvoRAResourceLock("disk0", -5); }, -1L, "Arbiter TRVX_RA_LOCK s:disk0 n:-5"},
        {0x100000000LL, [] { return long{OrvoRAResourceUnlock(4294967301L)}; }, 0,
         "Arbiter TRVX_RA_UNLOCK n:4294967301"},
    };
    for (const Case& c : cases) {
        expect(Wire().addLong(c.nReply));
        EXPECT_EQ(c.call(), c.nResult) << c.sRecord;
        EXPECT_EQ(last().bytes, wireOf(c.sRecord)) << c.sRecord;
    }
    EXPECT_EQ(m_daemon.requests()[1].connection, m_daemon.requests()[0].connection)
        << "publications share a connection";
    EXPECT_TRUE(nCount == -77 && jobs[0].iJobID == 1 && jobs[1].iProgress == 4) << "out-parameters left alone";
    // The shared connection outlives a restart of the daemon.
    m_daemon.stop();
    expect(Wire().addLong(2));
    ASSERT_TRUE(m_daemon.start());
    EXPECT_EQ(OrvoNNNotify("after", &empty), 2);
}

// A daemon error gives minus its code, a connection cut mid-reply -ECONNRESET,
// no daemon -ECONNREFUSED; nothing is copied out on failure.
TEST_F(WireTest, FailedExchangesReturnMinusTheCode) {
    OrvoNNNotification plain{"<a/>", nullptr, 0, nullptr};
    char buffer[16] = "keep";
    int nSize = sizeof(buffer), nFrequency = 0;
    // Each reply is the last thing the daemon sends: an error value, a reply cut short or nothing.
    const std::string sLong = Wire().addLong(0).addString("2030"), sInt = Wire().addInt(0);
    const auto error = [](int nCode) { return Wire().addError(nCode, "scripted").bytes(); };
    const auto notify = [&] { return OrvoNNNotify("e", &plain); };
    const auto subscribe = [] { return OrvoNNRegisterForNotification("e", onNotification, nullptr); };
    const auto unsubscribe = [] { return OrvoNNUnregisterForNotification(4); };
    const std::tuple<std::string, std::function<long()>, long> cases[] = {
        {error(EACCES), notify, -EACCES},
        {error(ENOSYS), subscribe, -ENOSYS},
        {error(EPROTO), unsubscribe, -EPROTO},
        {sLong.substr(0, 4), notify, -ECONNRESET},
        {sInt.substr(0, 2), subscribe, -ECONNRESET},
        {"", unsubscribe, -ECONNRESET},
        {error(38), [] { return OrvoTSCancelTask(1); }, -38},
        {sLong.substr(0, 12), [&] { return OrvoTSScheduledTaskGetNextTime(1, &nSize, buffer, &nFrequency); },
         -ECONNRESET},
        {error(13), [] { return OrvoJSECancelJob(1); }, -13},
        {sLong.substr(0, 4), [] { return OrvoRAResourceLock("r", 0); }, -ECONNRESET},
    };
    for (const auto& [sReply, call, nResult] : cases) {
        m_daemon.expect({sReply, false, true});
        // The daemon closes after an error value; a request must not race that close.
        KSIntfLibrary::deleteSharedLibraryConnection();
        EXPECT_EQ(call(), nResult) << testing::PrintToString(sReply);
    }
    // Every name the sink may try is taken: registering fails at once with the
    // bind error, before any request goes out (a hang shows as the test's time-out).
    KSIntfLibrary::deleteInstance();
    sockaddr_un squat;
    const unsigned nLen =
        OrvoNet::pipeAddress("ksintf-cb-" + std::to_string(getpid()) + "-" + std::string(16, '0'), &squat);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&squat), nLen), 0);
    const std::size_t nRequests = m_daemon.requests().size();
    g_bZeroRandom = true;
    EXPECT_EQ(OrvoNNRegisterForNotification("e", onNotification, nullptr), -EADDRINUSE);
    g_bZeroRandom = false;
    close(fd);
    EXPECT_EQ(m_daemon.requests().size(), nRequests);
    m_daemon.stop();
    const std::function<long()> down[] = {notify,
                                          unsubscribe,
                                          subscribe,
                                          [] { return scheduleOn(1, 1, KSInterface::GetYear() + 1); },
                                          [&] { return OrvoTSRetrieveBlobTask(1, &nSize, buffer); },
                                          [] { return OrvoJSELookupJob("x"); },
                                          [] { return long{OrvoRAResourceUnlock(3)}; }};
    for (const auto& call : down) EXPECT_EQ(call(), -ECONNREFUSED);
    EXPECT_EQ(nSize, 16);
    EXPECT_EQ(OrvoTSExecutionInformation(1, buffer, &nSize), -ECONNREFUSED);
    EXPECT_EQ(nSize, 30) << "the length of the error text, which is not copied";
    EXPECT_STREQ(buffer, "keep");
}

// After an error value the next publication opens a fresh connection and
// succeeds at once, even while the daemon still holds the old one open.
TEST_F(WireTest, AnErrorValueLetsTheNextRequestSucceedAtOnce) {
    m_daemon.expect({Wire().addError(EACCES, "not yours"), false});
    expect(Wire().addLong(3));
    OrvoNNNotification plain{"<a/>", nullptr, 0, nullptr};
    EXPECT_EQ(OrvoNNNotify("first", &plain), -EACCES);
    EXPECT_EQ(OrvoNNNotify("second", &plain), 3);
    const std::vector<Request> requests = m_daemon.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_NE(requests[1].connection, requests[0].connection);
}

// A reply later than KSINTF_REPLY_TIMEOUT_MS is not waited for, though it would come.
TEST_F(WireTest, AReplyPastTheConfiguredBoundIsNotWaitedFor) {
    ScopedEnv bound("KSINTF_REPLY_TIMEOUT_MS", "100");
    m_daemon.expect({.fn = [](const Request&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return Wire().addLong(7).bytes();
    }});
    EXPECT_EQ(OrvoJSELookupJob("late"), -ETIMEDOUT);
}

// Bad arguments are refused with their codes before any connection is made;
// the date checks come in their historical order.
TEST_F(WireTest, BadArgumentsNeverReachTheDaemon) {
    awayFromMidnight();
    const int nThis = KSInterface::GetYear(), nLeap = nextYear(true), nPlain = nextYear(false);
    struct Date {
        int nMonth, nDay, nYear, nHour, nMinute, nSecond, nCode;
    };
    for (const Date& d : {Date{0, 0, nThis - 1, 99, 0, 0, -1},
                          {13, 1, nLeap, 12, 0, 0, -1},
                          {4, 0, nLeap, 12, 0, 0, -2},
                          {4, 32, nLeap, 12, 0, 0, -2},
                          {4, 31, nThis - 1, 12, 0, 0, -4},
                          {2, 29, 2100, 12, 0, 0, -3},
                          {2, 30, nLeap, 12, 0, 0, -3},
                          {6, 1, nLeap, 24, 0, 0, -5},
                          {6, 1, nLeap, -1, 0, 0, -5},
                          {6, 1, nLeap, 0, 60, 0, -6},
                          {6, 1, nLeap, 0, 0, 60, -7},
                          {6, 1, nLeap, 0, 0, -1, -7}})
        EXPECT_EQ(scheduleOn(d.nMonth, d.nDay, d.nYear, d.nHour, d.nMinute, d.nSecond), d.nCode)
            << d.nMonth << "/" << d.nDay << "/" << d.nYear << " " << d.nHour << ":" << d.nMinute << ":" << d.nSecond;
    // A date before today within this year: -8, but only once the time fields pass.
    const std::time_t now = std::time(nullptr), yesterday = now - 24 * 60 * 60;
    std::tm y{}, t{};
    localtime_r(&yesterday, &y);
    localtime_r(&now, &t);
    if (y.tm_year + 1900 == nThis) {
        EXPECT_EQ(scheduleOn(y.tm_mon + 1, y.tm_mday, nThis, 24), -5);
        EXPECT_EQ(scheduleOn(y.tm_mon + 1, y.tm_mday, nThis), -8);
    }
    char c = 'x';
    int nSize = 10, nMinus = -1, nFrequency = 0;
    const auto blob = [](const char* pszName, int nLength, const char* pData) {
        return OrvoTSScheduleBlobTask(pszName, nLength, pData, cDaily, 1, 1, 2000, 0, 0, 0);
    };
    const std::function<int()> nullOrNegative[] = {
        [&] { return OrvoTSListAllExecTasks(nullptr, &c); },
        [&] { return OrvoTSListAllExecTasks(&nMinus, &c); },
        [&] { return OrvoTSListAllBlobTasks(&nSize, nullptr); },
        [&] { return OrvoTSRetrieveBlobTask(1, &nMinus, &c); },
        [&] { return OrvoTSScheduledTaskGetNextTime(31, &nSize, &c, nullptr); },
        [&] { return OrvoTSScheduledTaskGetNextTime(31, &nMinus, &c, &nFrequency); },
        [&] { return blob(nullptr, 1, &c); },
        [&] { return blob("b", 0, &c); },
        [&] { return blob("b", 1, nullptr); },
        [&] { return OrvoTSRetrieveBlobTask(1, nullptr, &c); },
        [&] { return OrvoTSRetrieveBlobTask(1, &nSize, nullptr); }};
    for (const auto& call : nullOrNegative) EXPECT_EQ(call(), -14);
    EXPECT_TRUE(nSize == 10 && nMinus == -1 && c == 'x');
    // Reserved event names are the daemon's; near misses are not reserved.
    for (const char* pszName : {"OrvoRAEvent", "OrvoJSEvent:x$", "OrvoTSEventABC", "OrvoRAEvent:disk0$"})
        EXPECT_EQ(OrvoNNRegisterForNotification(pszName, onNotification, nullptr), -2) << pszName;
    EXPECT_THROW(OrvoNNRegisterForNotification(nullptr, onNotification, nullptr), std::logic_error);
    OrvoNNNotification nullText{nullptr, nullptr, 0, nullptr};
    EXPECT_THROW(OrvoNNNotify("event", &nullText), std::logic_error);
    EXPECT_EQ(m_daemon.connectionCount(), 0);
    // Valid dates do go out: 29 February of a leap year, today at an hour already past, and every
    // month's last day; the day after it does not (past 31 a day is out of range).
    std::vector<std::tuple<int, int, int>> valid = {
        {2, 29, nLeap}, {2, 29, 2400}, {t.tm_mon + 1, t.tm_mday, t.tm_year + 1900}};
    const int kLengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (int nMonth = 1; nMonth <= 12; ++nMonth) {
        EXPECT_EQ(scheduleOn(nMonth, kLengths[nMonth - 1] + 1, nPlain), kLengths[nMonth - 1] == 31 ? -2 : -3) << nMonth;
        valid.emplace_back(nMonth, kLengths[nMonth - 1], nPlain);
    }
    for (const auto& [nMonth, nDay, nYear] : valid) {
        expect(Wire().addLong(5));
        EXPECT_EQ(scheduleOn(nMonth, nDay, nYear, 0, 0, 0), 5) << nMonth << "/" << nDay << "/" << nYear;
    }
    expect(Wire().addInt(-6));
    EXPECT_EQ(_OrvoNNRegisterForNotification("OrvoJSEvent:job$", onNotification, nullptr), -6)
        << "the internal entry point takes reserved names to the daemon";
    EXPECT_EQ(last().text(0), "OrvoJSEvent:job$");
    expect(Wire().addLong(1));
    long rc = 0;  // the publication lock was given back after the throw
    std::thread([&] {
        OrvoNNNotification p{"", nullptr, 0, nullptr};
        rc = OrvoNNNotify("e", &p);
    }).join();
    EXPECT_EQ(rc, 1);
}

TEST_F(WireTest, TextAndBlobRepliesFollowTheBufferProtocol) {
    const std::string sList = "1;backup|2;report", sWhen = "2031-05-04 10:00:00";
    const int nList = static_cast<int>(sList.size()), nWhen = static_cast<int>(sWhen.size());
    std::vector<char> exec(64, 'x'), blobs(64, 'x'), when(64, 'x'), blob(8, 'x');
    int nFrequency = -99;
    const std::string list = Wire().addLong(0).addString(sList), status = Wire().addLong(7);
    const auto next = [&](int nFreq) { return Wire().addLong(0).addString(sWhen).addInt(nFreq).bytes(); };
    const std::string retrieved = Wire().addLong(0).addInt(6).addRaw(kBlob);
    struct Target {
        std::function<int(int*)> call;
        std::string sRecord;
    };
    const Target E{[&](int* p) { return OrvoTSListAllExecTasks(p, exec.data()); }, "Scheduler TRVX_TS_LIST_EXEC"};
    const Target B{[&](int* p) { return OrvoTSListAllBlobTasks(p, blobs.data()); }, "Scheduler TRVX_TS_LIST_BLOB"};
    const Target N{[&](int* p) { return OrvoTSScheduledTaskGetNextTime(31, p, when.data(), &nFrequency); },
                   "Scheduler TRVX_TS_GET_NEXT_TIME n:31"};
    const Target R{[&](int* p) { return OrvoTSRetrieveBlobTask(77, p, blob.data()); },
                   "Scheduler TRVX_TS_RETRIEVE_BLOB n:77"};
    // Text: exactly its length leaves no room for the zero, 0 asks the size, a status leaves the length alone,
    // and with room the capacity past the text is zero-filled. The frequency is read only when the text fitted.
    // A blob needs no zero and fits a buffer of exactly its size.
    struct Step {
        const Target* t;
        std::string sReply;
        int nCapacity, nResult, nSizeAfter;
    };
    for (const Step& st : {Step{&E, list, nList, -12, nList + 1},
                           {&E, list, 0, -12, nList + 1},
                           {&E, status, 50, 7, 50},
                           {&E, list, nList + 4, 0, nList + 1},
                           {&B, list, nList, -12, nList + 1},
                           {&B, list, nList + 4, 0, nList + 1},
                           {&N, next(cMonthly), 64, 0, nWhen + 1},
                           {&N, next(cDaily), nWhen, -12, nWhen + 1},
                           {&N, status, 5, 7, 5},
                           {&R, retrieved, 5, -12, 6},
                           {&R, status, 3, 7, 3},
                           {&R, retrieved, 6, 0, 6}}) {
        expect(st.sReply);
        int nSize = st.nCapacity;
        EXPECT_EQ(st.t->call(&nSize), st.nResult) << st.t->sRecord << " " << st.nCapacity;
        EXPECT_EQ(nSize, st.nSizeAfter) << st.t->sRecord << " " << st.nCapacity;
        EXPECT_EQ(last().bytes, wireOf(st.t->sRecord)) << st.t->sRecord;
    }
    for (const auto& buffer : {exec, blobs})
        EXPECT_EQ(std::string(buffer.data(), nList + 5), sList + std::string(4, '\0') + "x");
    EXPECT_EQ(std::string(when.data()), sWhen);
    EXPECT_EQ(nFrequency, cMonthly);
    EXPECT_EQ(std::string(blob.data(), blob.size()), kBlob + "xx");
    // Execution information: too small gives -1 and the length of what the buffer held.
    char text[32] = "old";
    int nSize = nWhen;
    expect(Wire().addString(sWhen).addLong(0));
    EXPECT_EQ(OrvoTSExecutionInformation(9, text, &nSize), -1);
    EXPECT_EQ(std::string(text) + " " + std::to_string(nSize), "old 3");
    nSize = nWhen + 1;  // exactly room for the zero
    expect(Wire().addString(sWhen).addLong(0x100000003LL));
    EXPECT_EQ(OrvoTSExecutionInformation(9, text, &nSize), 3);
    EXPECT_EQ(last().bytes, wireOf("Scheduler TRVX_TS_EXECUTION_INFO n:9 n:" + std::to_string(nWhen + 1)));
    EXPECT_EQ(std::string(text) + " " + std::to_string(nSize), sWhen + " " + std::to_string(nWhen));
}

// Every family registers through the notifier under its event name (what the
// sink then hands the callbacks: CallbackObjects below and each family's
// end-to-end test); a refused registration leaves nothing behind, a refused
// unregistration keeps the function alive, an accepted one drops it.
TEST_F(WireTest, RegistrationsNameTheirEventsAndUnregistrationsPassStatusesThrough) {
    const auto answered = [&](const std::function<int()>& call, std::int32_t nStatus) {
        expect(Wire().addInt(nStatus));
        return call();
    };
    const int hN = answered([] { return OrvoNNRegisterForNotification("nn.event", onNotification, nullptr); }, 0);
    EXPECT_EQ(last().text(0), "nn.event");
    const int hJ = answered([] { return OrvoJSERegisterForNotification("Backup", onJob); }, 0);
    EXPECT_EQ(last().text(0), "OrvoJSEvent:Backup$");
    const std::size_t nLocks = getRANotificationInfoByHandleMap()->size();
    const auto lock = [] { return OrvoRARegisterForNotification("printer", onLock); };
    EXPECT_EQ(answered(lock, -5), -5);
    EXPECT_EQ(getRANotificationInfoByHandleMap()->size(), nLocks);
    const int hL = answered(lock, 0);
    EXPECT_EQ(last().text(0), "OrvoRAEvent:printer$");
    // A task must be alive to be watched; the state query comes first.
    expect(Wire().addLong(cExit));
    EXPECT_EQ(OrvoTSRegisterForNotification(7, onTask), -9);
    expect(Wire().addLong(cWaiting));
    const int hT = answered([] { return OrvoTSRegisterForNotification(7, onTask); }, 0);
    EXPECT_EQ(last().text(0), "OrvoTSEvent:7$");
    for (const std::int32_t nStatus : {-2, 0}) {
        EXPECT_EQ(answered([&] { return OrvoNNUnregisterForNotification(hN); }, nStatus), nStatus);
        EXPECT_EQ(bool(KSIntfLibrary::getInstance().getCallbackContainer().lookup(hN)), nStatus != 0);
        EXPECT_EQ(answered([&] { return OrvoJSEUnregisterForNotification(hJ); }, nStatus), nStatus);
        EXPECT_EQ(getJSNotificationInfoByHandleMap()->count(hJ), nStatus == 0 ? 0u : 1u);
        EXPECT_EQ(answered([&] { return OrvoRAUnregisterForNotification(hL); }, nStatus), nStatus);
        EXPECT_EQ(getRANotificationInfoByHandleMap()->count(hL), nStatus == 0 ? 0u : 1u);
        EXPECT_EQ(answered([&] { return OrvoTSUnregisterForNotification(hT); }, nStatus), nStatus);
    }
    EXPECT_EQ(last().integer(1), hT);
}

// The callback objects read what the sink hands them: a notification whole
// (kept until the next), typed job, task and lock fields with sign extension; a
// cut, mistyped or impossible record throws, a short payload is dropped.
TEST(CallbackObjects, DecodeWhatTheSinkHandsThem) {
    KSInterface::NotificationNetworkCallback callback("ev");
    int context = 0;
    const std::string sBinary("\x01\0\xff", 3);
    auto* pPayload = new OrvoNet::OrvoPayloadConnection(notification("zero", "<0/>", "12345", 5) +
                                                        notification("one", "<a b='1'/>", sBinary, 3) +
                                                        notification("two", "<2/>", "de", 2) + "next");
    OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection> conn(pPayload);
    callback.doCallback(conn);
    callback.setCallback(onNotification, &context);
    callback.doCallback(conn);
    callback.doCallback(conn);
    EXPECT_EQ(pPayload->remaining(), 4u);
    EXPECT_EQ(g_events.take(2), (Events{"one|<a b='1'/>|" + sBinary + "|3", "two|<2/>|de|2"}));
    EXPECT_EQ(callback.getEventName() + callback.getXmlData() + std::to_string(callback.getProducerDataLen()),
              "two<2/>2");
    std::string sWrongTag = notification("e", "<x/>", "", 0);
    sWrongTag[0] = 'i';
    for (const std::string& s :
         {notification("e", "<x/>", "", 0).substr(0, 20), sWrongTag, notification("e", "<x/>", "", -1),
          notification("e", "<x/>", "", 1L << 40), notification("e", "<x/>", "ab", 5)}) {
        OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection> broken(new OrvoNet::OrvoPayloadConnection(s));
        EXPECT_THROW(callback.doCallback(broken), OrvoSupport::OrvoException);
    }
    const auto feed = [](auto& object, const std::string& sRecord) {
        auto* p = new OrvoNet::OrvoPayloadConnection(sRecord);
        OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection> sp(p);
        object.doCallback(sp);
        return p->remaining();
    };
    KSInterface::JobStatusCallback job("job-7");
    KSInterface::ResourceArbitrationCallback lock("printer");
    KSInterface::TaskSchedulerCallback task(5);
    job.setCallback(onJob);
    lock.setCallback(onLock);
    task.setCallback(onTask);
    EXPECT_EQ(feed(job, Wire().addShort(7).addShort(3).addString("job-7-text")), 0u);
    EXPECT_EQ(feed(task, Wire().addShort(3).addShort(cCompleted).addLong(0x100000009LL)), 0u);
    job.setCallback(nullptr);  // the fields still change without a function
    task.setCallback(nullptr);
    EXPECT_EQ(feed(job, Wire().addShort(7).addShort(static_cast<std::int16_t>(0xFFFF)).addString("x")), 0u);
    EXPECT_EQ(job.getEvent(), TRVX_JSE_EXIT);
    EXPECT_EQ(feed(task, Wire().addShort(3).addShort(static_cast<std::int16_t>(0xFFFF)).addLong(-12)), 0u);
    EXPECT_EQ(std::pair(task.getState(), task.getTaskId()), std::pair(cExit, -12));
    EXPECT_EQ(feed(lock, Wire().addShort(7).addShort(static_cast<std::int16_t>(0x8000)).addString("other")), 0u);
    EXPECT_EQ(lock.getLockCode(), -32768);
    EXPECT_THROW(feed(task, Wire().addShort(3).addShort(cInProgress).addString("9")), OrvoSupport::OrvoException);
    EXPECT_EQ(task.getTaskId(), -12);
    EXPECT_EQ(g_events.take(3), (Events{"J:job-7-text " + std::to_string(TRVX_JSE_UPDATED),
                                        "T:9 " + std::to_string(cCompleted), "L:printer -32768"}));
    RANotificationInfo lockInfo(onLock);
    JSNotificationInfo jobInfo(onJob);
    for (long nLength : {0L, 3L}) {
        char shortCode[3] = {2, 0, 0};
        OrvoNNNotification lockEvent{"printer", nLength ? shortCode : nullptr, nLength, &lockInfo};
        OrvoNNNotification jobEvent{"Backup", nLength ? shortCode : nullptr, nLength, &jobInfo};
        OrvoNNNotification taskEvent{"16", nLength ? shortCode : nullptr, nLength, reinterpret_cast<void*>(&onTask)};
        OrvoRANotificationCallback("OrvoRAEvent:printer$", &lockEvent);
        OrvoJSNotificationCallback("OrvoJSEvent:Backup$", &jobEvent);
        OrvoTSNotificationCallback("OrvoTSEvent:16$", &taskEvent);
    }
    EXPECT_EQ(g_events.take(0), Events{}) << "payloads too short for their code are dropped unread";
}

}  // namespace
