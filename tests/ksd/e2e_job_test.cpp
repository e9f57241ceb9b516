// Jobs through libksintf against a real ksd: the life cycle with every event
// reaching a registered C callback, and a state database ksd cannot read.
// Writes under kills: CrashTest; a subscription kept across a kill: LockEndToEnd.
#include <filesystem>

#include "OrvoJobStatus.h"
#include "e2e_support.h"

namespace {

class JobEndToEnd : public e2e::DaemonSuite {};

e2e::EventLog g_renderEvents;

TEST_F(JobEndToEnd, ALifeCycleFromTwoProcessesReachesTheRegisteredCallbackInOrder) {
    const int registration = OrvoJSERegisterForNotification(
        "render", [](const char* name, tOrvoJSEEvent event) { g_renderEvents.add(name, static_cast<int>(event)); });
    ASSERT_GE(registration, 0);
    const int id = OrvoJSECreateJob("frames 1-100", "render");
    ASSERT_GT(id, 0);
    EXPECT_EQ(OrvoJSELookupJob("render"), id);
    int apps[] = {101, 102, 103};
    EXPECT_EQ(OrvoJSEMapJobIDToAppID(id, 3, apps), 0);
    // A worker process of the same user reports progress.
    auto worker = helper({"progress", std::to_string(id), "50"});
    EXPECT_EQ(helperValue(*worker, "progress"), 0);
    EXPECT_EQ(OrvoJSEGetJobProgress(id), 50);
    EXPECT_EQ(OrvoJSESetJobProgress(id, 100), 0);
    EXPECT_EQ(OrvoJSECancelJob(id), 0);
    EXPECT_EQ(OrvoJSEDeleteJob(id), 0);
    for (int gone : {OrvoJSEDeleteJob(id), OrvoJSEGetJobProgress(id), OrvoJSELookupJob("render")}) EXPECT_EQ(gone, -2);
    EXPECT_EQ(g_renderEvents.waitFor(6), (e2e::Log{{"render", TRVX_JSE_CREATED}, {"render", TRVX_JSE_UPDATED},
                                                   {"render", TRVX_JSE_UPDATED}, {"render", TRVX_JSE_COMPLETED},
                                                   {"render", TRVX_JSE_CANCELLED}, {"render", TRVX_JSE_EXIT}}));
    EXPECT_EQ(OrvoJSEUnregisterForNotification(registration), 0);
}

TEST(JobStoreStartup, ADamagedDatabaseStopsTheStartAndIsLeftAsItWas) {
    kstest::KsdProcess ksd;
    std::filesystem::create_directories(ksd.stateDir());
    const std::string file = ksd.stateDir() + "/ksd.db", garbage(8192, '\x5a');
    std::ofstream(file, std::ios::binary) << garbage;
    EXPECT_FALSE(ksd.start());
    EXPECT_EQ(e2e::readFile(file), garbage) << "what ksd cannot read, it leaves";
}

}  // namespace
