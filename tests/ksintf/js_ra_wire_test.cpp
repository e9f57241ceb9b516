// The job-status and resource-arbitration families against the fake daemon:
// the fields each request writes, how replies are narrowed, how failures turn
// into negative codes, and how pushed events reach the caller's functions.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KSIntfInternal.h"
#include "JobStatusCallback.h"
#include "OrvoJobStatus.h"
#include "OrvoPayloadConnection.h"
#include "OrvoResourceArbitration.h"
#include "ResourceArbitrationCallback.h"
#include "fake_daemon.h"

using namespace kstest;
using Events = std::vector<std::pair<std::string, int>>;

namespace {

class FamilyWireTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_daemon.start());
        m_env = std::make_unique<ScopedEnv>("KSINTF_CONN_TYPE", m_daemon.connType());
    }
    // Registers with the daemon's given status; on success pushes sEvent, its name as text and nCode as data.
    int registerAndPush(const std::function<int()>& registration, std::int32_t nStatus, const std::string& sEvent,
                        std::int32_t nCode) {
        m_daemon.expect(Script{.service = "Notifier", .request = "TRVX_NN_REGISTER",
                               .fields = {Field::String(), Field::String(), Field::Int()},
                               .reply = Wire().addInt(nStatus).bytes(), .closeAfterReply = true});
        const int h = registration();
        const auto r = m_daemon.request(m_daemon.requestCount() - 1);
        EXPECT_EQ(r.text(0), sEvent);
        const std::string s = Wire().addString("ksd").addString(sEvent).addString(sEvent.substr(12, sEvent.size() - 13))
                                  .addLong(sizeof(nCode))
                                  .addRaw({reinterpret_cast<const char*>(&nCode), sizeof(nCode)})
                                  .bytes();
        EXPECT_TRUE(h <= 0 || m_daemon.push(r.text(1), static_cast<std::int32_t>(r.integer(2)), s));
        return h;
    }
    FakeDaemon m_daemon;
    std::unique_ptr<ScopedEnv> m_env;
};

// "Service Request s:text l:number ..." as the daemon recorded it.
std::string recorded(const Request& r) {
    std::string s = r.service + " " + r.request;
    for (const auto& v : r.values) s += v.kind == Kind::String ? " s:" + v.text : " l:" + std::to_string(v.integer);
    return s;
}

TEST_F(FamilyWireTest, EachRequestWritesItsFieldsAndNarrowsTheReply) {
    int aiAppID[3] = {11, -12, 13};
    int nCount = -77;
    OrvoJSEJob jobs[2] = {{1, 2}, {3, 4}};
    struct Case { std::int64_t nReply; std::function<long()> call; long nResult; std::string sRecorded; };
    const Case cases[] = {
        {7, [] { return OrvoJSECreateJob("nightly backup", "backup"); }, 7, "TRVX_JS_CREATE s:nightly backup s:backup"},
        {7, [] { return OrvoJSELookupJob("backup"); }, 7, "TRVX_JS_LOOKUP s:backup"},
        // A reply wider than 32 bits keeps its low half.
        {0x100000005LL, [] { return OrvoJSESetJobProgress(-3, 40); }, 5, "TRVX_JS_SET_PROGRESS l:-3 l:40"},
        {40, [] { return OrvoJSEGetJobProgress(7); }, 40, "TRVX_JS_GET_PROGRESS l:7"},
        {-2, [] { return OrvoJSECancelJob(8); }, -2, "TRVX_JS_CANCEL l:8"},
        {0, [] { return OrvoJSEDeleteJob(9); }, 0, "TRVX_JS_DELETE l:9"},
        // One long per application, none for a count below one.
        {0, [&] { return OrvoJSEMapJobIDToAppID(4, 3, aiAppID); }, 0, "TRVX_JS_MAP_JOB l:4 l:3 l:11 l:-12 l:13"},
        {0, [] { return OrvoJSEMapJobIDToAppID(4, 0, nullptr); }, 0, "TRVX_JS_MAP_JOB l:4 l:0"},
        {0, [] { return OrvoJSEMapJobIDToAppID(4, -1, nullptr); }, 0, "TRVX_JS_MAP_JOB l:4 l:-1"},
        {3, [&] { return OrvoJSEGetAllJobProgress(&nCount, jobs); }, 3, "TRVX_JS_GET_ALL_PROGRESS"},
        {8589934591LL, [] { return OrvoRAResourceLock("disk0", -5); }, -1L, "TRVX_RA_LOCK s:disk0 l:-5"},
        {0x100000000LL, [] { return long{OrvoRAResourceUnlock(4294967301L)}; }, 0, "TRVX_RA_UNLOCK l:4294967301"},
    };
    for (const Case& c : cases) {
        const std::string sService = c.sRecorded[5] == 'J' ? "JobStatus" : "Arbiter";
        std::vector<Field> fields;  // one per "s:" or "l:" of the expected record
        for (std::size_t i = 0; (i = c.sRecorded.find(':', i + 1)) != std::string::npos;)
            fields.push_back(c.sRecorded[i - 1] == 's' ? Field::String() : Field::Long());
        m_daemon.expect(Script{.service = sService, .fields = fields, .reply = Wire().addLong(c.nReply).bytes(),
                               .closeAfterReply = true});
        EXPECT_EQ(c.call(), c.nResult) << c.sRecorded;
        ASSERT_TRUE(m_daemon.waitForRequests(m_daemon.requestCount()));
        const auto r = m_daemon.request(m_daemon.requestCount() - 1);
        EXPECT_TRUE(r.complete && r.version == 1 && r.magic == 7777) << c.sRecorded;
        EXPECT_EQ(recorded(r), sService + " " + c.sRecorded);
        // Nothing followed the fields on that connection but the end.
        Wire sent = Wire().addShort(1).addShort(7777).addString(r.service).addString(r.request);
        for (const auto& v : r.values) v.kind == Kind::String ? sent.addString(v.text) : sent.addLong(v.integer);
        EXPECT_EQ(m_daemon.connectionBytes(r.connection).size(), sent.bytes().size()) << c.sRecorded;
    }
    // The bare round trip leaves its out-parameters alone.
    EXPECT_TRUE(nCount == -77 && jobs[0].iJobID == 1 && jobs[1].iProgress == 4);
}

TEST_F(FamilyWireTest, FailedExchangesReturnMinusTheCode) {
    m_daemon.expect(Script{.service = "JobStatus", .fields = {Field::Long()}, .errorCode = 13});
    EXPECT_EQ(OrvoJSECancelJob(1), -13);
    m_daemon.expect(Script{.service = "Arbiter", .fields = {Field::String(), Field::Long()},
                           .reply = Wire().addLong(5).bytes(), .closeAfterReplyBytes = 4});
    EXPECT_EQ(OrvoRAResourceLock("r", 0), -104L);
    m_daemon.stop();
    EXPECT_EQ(OrvoJSELookupJob("x"), -111);
    EXPECT_EQ(OrvoRAResourceUnlock(3), -111);
}

// Deliveries seen by the C callbacks, guarded: they run on the sink's thread.
std::mutex g_mutex;
Events g_events;

void note(const std::string& sWhat, int nCode) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_events.emplace_back(sWhat, nCode);
}
void onJob(const char* pszName, tOrvoJSEEvent event) { note(std::string("J:") + pszName, event); }
void onLock(const char* pszName, int nCode) { note(std::string("L:") + pszName, nCode); }

// Waits for n deliveries and takes them all.
Events takeEvents(std::size_t n) {
    for (int i = 0; i < 500 && [&] { std::lock_guard<std::mutex> lock(g_mutex); return g_events.size() < n; }(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::lock_guard<std::mutex> lock(g_mutex);
    return std::exchange(g_events, {});
}

TEST_F(FamilyWireTest, JobAndLockEventsReachTheirCallbacksThroughTheSink) {
    // Two registrations of one job each get the event.
    const auto job = [] { return OrvoJSERegisterForNotification("Backup", onJob); };
    const int hA = registerAndPush(job, 0, "OrvoJSEvent:Backup$", TRVX_JSE_CREATED);
    const int hB = registerAndPush(job, 0, "OrvoJSEvent:Backup$", TRVX_JSE_CREATED);
    ASSERT_TRUE(hA > 0 && hB > 0 && hA != hB);
    EXPECT_EQ(takeEvents(2), (Events{{"J:Backup", TRVX_JSE_CREATED}, {"J:Backup", TRVX_JSE_CREATED}}));

    // A refused lock registration leaves no entry; an accepted one delivers.
    const std::size_t nBefore = getRANotificationInfoByHandleMap()->size();
    const auto lock = [] { return OrvoRARegisterForNotification("printer", onLock); };
    EXPECT_EQ(registerAndPush(lock, -5, "OrvoRAEvent:printer$", -1), -5);
    EXPECT_EQ(getRANotificationInfoByHandleMap()->size(), nBefore);
    const int hLock = registerAndPush(lock, 0, "OrvoRAEvent:printer$", -1);
    ASSERT_GT(hLock, 0);
    EXPECT_EQ(takeEvents(1), (Events{{"L:printer", -1}}));

    // In both families a refused unregistration keeps the entry (a later
    // event still finds its function alive); an accepted one drops it.
    const auto unregister = [&](const std::function<int()>& call, std::int32_t nStatus) {
        m_daemon.expect(Script{.service = "Notifier", .fields = {Field::String(), Field::Int()},
                               .reply = Wire().addInt(nStatus).bytes(), .closeAfterReply = true});
        EXPECT_EQ(call(), nStatus);
    };
    for (const std::int32_t nStatus : {-2, 0}) {
        unregister([&] { return OrvoJSEUnregisterForNotification(hA); }, nStatus);
        EXPECT_EQ(getJSNotificationInfoByHandleMap()->count(hA), nStatus == 0 ? 0u : 1u);
        unregister([&] { return OrvoRAUnregisterForNotification(hLock); }, nStatus);
        EXPECT_EQ(getRANotificationInfoByHandleMap()->count(hLock), nStatus == 0 ? 0u : 1u);
    }
}

// Lock and job events whose payload is too short for their code are dropped
// unread (AddressSanitizer would see a read past the 3 bytes).
TEST(FamilyAdapters, ShortPayloadsAreDroppedUnread) {
    RANotificationInfo lockInfo(onLock);
    JSNotificationInfo jobInfo(onJob);
    for (long nLength : {0L, 3L}) {
        std::unique_ptr<char[]> spShort(new char[3]{2, 0, 0});
        OrvoNNNotification lock{"printer", nLength ? spShort.get() : nullptr, nLength, &lockInfo};
        OrvoNNNotification job{"Backup", nLength ? spShort.get() : nullptr, nLength, &jobInfo};
        OrvoRANotificationCallback("OrvoRAEvent:printer$", &lock);
        OrvoJSNotificationCallback("OrvoJSEvent:Backup$", &job);
    }
    std::int32_t nCode = TRVX_JSE_CREATED;
    OrvoNNNotification whole{"Backup", &nCode, sizeof nCode, &jobInfo};
    OrvoJSNotificationCallback("OrvoJSEvent:Backup$", &whole);
    EXPECT_EQ(takeEvents(1), (Events{{"J:Backup", TRVX_JSE_CREATED}}));
}

// Feeds one pushed record to a callback object; returns the bytes left unread.
template <class T>
std::size_t feed(T& callback, std::int16_t nSecond, const std::string& sText) {
    auto* pConnection =
        new OrvoNet::OrvoPayloadConnection(Wire().addShort(7).addShort(nSecond).addString(sText).bytes());
    OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection> spConnection(pConnection);
    callback.doCallback(spConnection);
    return pConnection->remaining();
}

TEST(FamilyCallbackObjects, DecodePushedFieldsWithSignExtension) {
    using namespace KSInterface;
    OrvoSupport::OrvoSmartPointer<JobStatusCallback> spJob(new JobStatusCallback("job-7"));
    OrvoSupport::OrvoSmartPointer<ResourceArbitrationCallback> spLock(new ResourceArbitrationCallback("printer"));
    spJob->setCallback(onJob);
    spLock->setCallback(onLock);
    EXPECT_EQ(feed(*spJob, 3, "job-7-text"), 0u);
    EXPECT_EQ(spJob->getEvent(), TRVX_JSE_UPDATED);
    spJob->setCallback(nullptr);  // the fields still change without a function
    EXPECT_EQ(feed(*spJob, static_cast<std::int16_t>(0xFFFF), "x"), 0u);
    EXPECT_EQ(spJob->getEvent(), TRVX_JSE_EXIT);
    EXPECT_EQ(feed(*spLock, static_cast<std::int16_t>(0x8000), "other"), 0u);
    EXPECT_EQ(spLock->getLockCode(), -32768);
    // The job callback passes the text just read; the lock callback the name it was built with.
    EXPECT_EQ(takeEvents(2), (Events{{"J:job-7-text", TRVX_JSE_UPDATED}, {"L:printer", -32768}}));
}

}  // namespace
