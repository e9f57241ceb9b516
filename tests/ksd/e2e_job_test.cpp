// Jobs through libksintf against a real ksd: the life cycle with every event
// reaching a registered C callback, jobs intact after ksd is killed with
// SIGKILL and restarted, and bad input at the socket losing nothing stored.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "OrvoCodec.h"
#include "OrvoJobStatus.h"
#include "e2e_support.h"

namespace {

class JobEndToEnd : public e2e::DaemonSuite {
protected:
    // The code of the error value that answers `bytes` on a fresh connection (0 when none came).
    static int sendBad(const std::string& bytes, bool closeEarly = false) {
        kstest::WireClient c; OrvoNet::Codec::Value v;
        if (!c.connect(ksd_->connType())) return -1;
        c.send(bytes);
        return !closeEarly && c.readValue(v) && v.tag == OrvoNet::Codec::kTagError ? static_cast<int>(v.integer) : 0;
    }
};

e2e::EventLog g_renderEvents;

TEST_F(JobEndToEnd, ALifeCycleFromTwoProcessesReachesTheRegisteredCallbackInOrder) {
    const int registration = OrvoJSERegisterForNotification(
        "render", [](const char* name, tOrvoJSEEvent event) { g_renderEvents.add(name, static_cast<int>(event)); });
    ASSERT_GE(registration, 0);
    const int id = OrvoJSECreateJob("frames 1-100", "render");
    ASSERT_GT(id, 0);
    EXPECT_EQ(OrvoJSECreateJob("again", "render"), -17);
    EXPECT_EQ(OrvoJSELookupJob("render"), id);
    int apps[] = {101, 102, 103};
    EXPECT_EQ(OrvoJSEMapJobIDToAppID(id, 3, apps), 0);
    // A worker process of the same user reports progress.
    auto worker = helper({"progress", std::to_string(id), "50", "progress", std::to_string(id), "150"});
    EXPECT_EQ(helperValue(*worker, "progress"), 0);
    EXPECT_EQ(helperValue(*worker, "progress"), -22);
    EXPECT_EQ(OrvoJSEGetJobProgress(id), 50);
    EXPECT_EQ(OrvoJSESetJobProgress(id, 100), 0);
    EXPECT_EQ(OrvoJSECancelJob(id), 0);
    EXPECT_EQ(OrvoJSESetJobProgress(id, 10), -125) << "a cancelled job takes no more progress";
    EXPECT_NE(e2e::queryDaemon("jobs").find("\"name\":\"render\",\"description\":\"frames 1-100\",\"progress\":100,"
                                            "\"state\":\"cancelled\",\"owner_uid\":" + std::to_string(::getuid()) +
                                            ",\"app_ids\":[101,102,103]"),
              std::string::npos);
    EXPECT_EQ(OrvoJSEDeleteJob(id), 0);
    for (int gone : {OrvoJSEDeleteJob(id), OrvoJSEGetJobProgress(id), OrvoJSELookupJob("render")}) EXPECT_EQ(gone, -2);
    EXPECT_EQ(g_renderEvents.waitFor(6), (e2e::Log{{"render", TRVX_JSE_CREATED}, {"render", TRVX_JSE_UPDATED},
                                                   {"render", TRVX_JSE_UPDATED}, {"render", TRVX_JSE_COMPLETED},
                                                   {"render", TRVX_JSE_CANCELLED}, {"render", TRVX_JSE_EXIT}}));
    EXPECT_EQ(OrvoJSEUnregisterForNotification(registration), 0);
}

e2e::EventLog g_afterRestartEvents;

TEST_F(JobEndToEnd, ASubscriberKeepsReceivingAfterKsdIsKilledAndRestarted) {
    const int registration = OrvoJSERegisterForNotification(
        "restarted", [](const char* name, tOrvoJSEEvent event) { g_afterRestartEvents.add(name, static_cast<int>(event)); });
    ASSERT_GE(registration, 0);
    ASSERT_TRUE(ksd_->restart(true)) << ksd_->log();
    // Nothing re-registers: the daemon brought the subscription back itself.
    const int id = OrvoJSECreateJob("made after the restart", "restarted");
    ASSERT_GT(id, 0);
    EXPECT_EQ(g_afterRestartEvents.waitFor(1), (e2e::Log{{"restarted", TRVX_JSE_CREATED}}));
    EXPECT_EQ(OrvoJSEUnregisterForNotification(registration), 0) << "and it is the same subscription";
    EXPECT_EQ(OrvoJSEDeleteJob(id), 0);
}

TEST_F(JobEndToEnd, JobsSurviveMalformedInputSigkillAndRestartAndIdsAreNotReused) {
    const int id = OrvoJSECreateJob("precious", "survivor");
    const int dropped = OrvoJSECreateJob("deleted before the kill", "dropped");
    ASSERT_GT(dropped, id);
    ASSERT_EQ(OrvoJSESetJobProgress(id, 33), 0);
    ASSERT_EQ(OrvoJSEDeleteJob(dropped), 0);
    const int count = OrvoJSEGetAllJobProgress(nullptr, nullptr);
    auto js = [](const char* request) { return kstest::requestWire("JobStatus", request); };
    for (const auto& [bytes, error] : std::vector<std::pair<std::string, int>>{
             {"GET / HTTP/1.1\r\n\r\n", EPROTO},
             {kstest::Wire().addShort(2).addShort(7777).bytes(), EPROTO},  // wrong version
             {js("TRVX_JS_DROP_ALL").bytes(), ENOSYS},
             {js("TRVX_JS_MAP_JOB").addLong(id).addLong(1000000000).bytes(), EMSGSIZE},  // refused before it arrives
             {js("TRVX_JS_DELETE").addString("1").bytes(), EPROTO},                     // a string where the id belongs
             {js("TRVX_JS_CREATE").addString("d").bytes() + std::string("s\x7f\xff\xff\xff", 5), EMSGSIZE},
             {js("TRVX_JS_CREATE").addString("d").addString(std::string(2000, 'n')).bytes(), EMSGSIZE}})
        EXPECT_EQ(sendBad(bytes), error) << bytes.substr(0, 40);
    // Half a request that would have deleted the job, then the client vanishes; then every byte value.
    sendBad(js("TRVX_JS_DELETE").bytes() + std::string("l\0\0", 3), true);
    std::string allBytes;
    for (int i = 0; i < 256; ++i) allBytes.push_back(static_cast<char>(i));
    sendBad(allBytes, true);
    EXPECT_EQ(OrvoJSEGetAllJobProgress(nullptr, nullptr), count);
    EXPECT_EQ(OrvoJSEGetJobProgress(id), 33);
    EXPECT_EQ(OrvoJSELookupJob("survivor"), id);
    ASSERT_TRUE(ksd_->restart(true)) << ksd_->log();
    EXPECT_EQ(OrvoJSEGetJobProgress(id), 33) << "after SIGKILL and restart too";
    EXPECT_EQ(OrvoJSELookupJob("survivor"), id);
    EXPECT_EQ(OrvoJSELookupJob("dropped"), -2);
    EXPECT_EQ(OrvoJSEGetAllJobProgress(nullptr, nullptr), count);
    EXPECT_GT(OrvoJSECreateJob("after the restart", "new"), dropped) << "the deleted job's id stays used";
}

TEST(JobStoreStartup, ADamagedDatabaseStopsTheStartAndIsLeftAsItWas) {
    kstest::KsdProcess ksd;
    std::filesystem::create_directories(ksd.stateDir());
    const std::string file = ksd.stateDir() + "/ksd.db", garbage(8192, '\x5a');
    std::ofstream(file, std::ios::binary) << garbage;
    EXPECT_FALSE(ksd.start());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(std::ifstream(file, std::ios::binary).rdbuf()), {}), garbage) << "what ksd cannot read, it leaves";
}

}  // namespace
