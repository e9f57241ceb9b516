// The library frame: module start/stop at load and unload (in child
// processes), the singleton and the shared connection.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <fstream>

#include "KSIntfLibrary.h"
#include "OrvoLibraryConnection.h"
#include "fake_daemon.h"
#include "frame_test_util.h"
#include "ksd_process.h"

using KSInterface::KSIntfLibrary;

// Loading attaches once (the publication lock exists: a publish with no
// daemon fails cleanly) and unloading detaches once, deleting nothing that
// was never made. A second load initialises nothing, so one explicit finit
// detaches and the unloads detach no more. An explicit init/finit pair inside
// one load only counts.
TEST(FrameModule, LoadAndUnloadStartAndStopTheLibraryOnce) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> scenarios = {
        {"once", {"ksintf::Module::detach: entering", "ksintf::Module::detach: exiting"}},
        {"twice",
         {"KSIntfFinitModuleData: entering", "ksintf::Module::detach: entering", "ksintf::Module::detach: exiting",
          "KSIntfFinitModuleData: exiting"}},
        {"init",
         {"KSIntfInitModuleData: entering", "KSIntfInitModuleData: exiting", "KSIntfFinitModuleData: entering",
          "KSIntfFinitModuleData: exiting", "ksintf::Module::detach: entering", "ksintf::Module::detach: exiting"}},
    };
    for (const auto& [sScenario, expected] : scenarios) {
        kstest::ScopedTempDir dir;
        kstest::ChildProcess helper(FRAME_DLOPEN_HELPER, {KSINTF_LIBRARY_FILE, sScenario},
                                    {{"OSUPT_LOG_LEVEL", "9"},
                                     {"OSUPT_LOG_FILE", dir.path() + "/log"},
                                     {"KSINTF_CONN_TYPE", "pipe:" + kstest::uniqueName("kstest-nodaemon")}});
        std::string sOut, sLine;
        while (helper.readLine(sLine)) sOut += sLine + "\n";
        EXPECT_EQ(helper.wait(), 0) << sOut;
        EXPECT_EQ(sOut, sScenario == "once" ? "notify=-111\nunloaded=1\n" : "unloaded=1\n");
        // The frame's start/stop lines in order; a line of the singleton
        // would show as "KSIntfLibrary".
        std::vector<std::string> events;
        int nFailures = 0;
        std::ifstream log(dir.path() + "/log");
        for (std::string s; std::getline(log, s);) {
            for (const auto& sEvent : scenarios[2].second)  // holds every marker
                if (s.ends_with(sEvent)) events.push_back(sEvent);
            if (s.find("KSIntfLibrary::") != std::string::npos) events.push_back("KSIntfLibrary");
            nFailures += s.find("|, error code = 111, returning code = -111") != std::string::npos;
        }
        EXPECT_EQ(events, expected) << sScenario;
        EXPECT_EQ(nFailures, sScenario == "once" ? 1 : 0) << sScenario;
    }
}

// The singleton is made once, also by threads racing for it, and deleting it
// twice is harmless. With no daemon the shared connection is not made and the
// failure propagates; the next call, once a daemon listens, makes it.
TEST(FrameSingleton, MadeOnceAndTheSharedConnectionRetriedAfterFailure) {
    kstest::FakeDaemon daemon;
    kstest::ScopedEnv env("KSINTF_CONN_TYPE", daemon.connType());
    KSIntfLibrary* seen[4] = {};
    std::vector<std::thread> threads;
    for (auto& p : seen) threads.emplace_back([&p] { p = &KSIntfLibrary::getInstance(); });
    for (auto& t : threads) t.join();
    for (auto* p : seen) EXPECT_EQ(p, &KSIntfLibrary::getInstance());
    KSIntfLibrary::deleteInstance();
    KSIntfLibrary::deleteInstance();
    KSIntfLibrary::deleteSharedLibraryConnection();  // none was made
    for (int attempt = 0; attempt < 2; ++attempt) {
        const std::string sFailure = frametest::failureOf([] { KSIntfLibrary::getSharedLibraryConnection(); });
        EXPECT_TRUE(sFailure.ends_with(" " + std::to_string(ECONNREFUSED))) << sFailure;
    }
    ASSERT_TRUE(daemon.start());
    KSInterface::OrvoLibraryConnection& shared = KSIntfLibrary::getSharedLibraryConnection();
    EXPECT_EQ(&KSIntfLibrary::getSharedLibraryConnection(), &shared);
    EXPECT_FALSE(shared.isRequestActive());
    KSIntfLibrary::deleteSharedLibraryConnection();
    KSIntfLibrary::deleteInstance();
}
