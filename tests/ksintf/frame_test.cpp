// The library frame: transport choice from KSINTF_CONN_TYPE, request framing
// (one send per request, the trailer read), module start/stop at load and
// unload (in child processes), the singleton and the shared connection.
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <thread>
#include <vector>

#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "OrvoLibraryConnection.h"
#include "OrvoLogging.h"
#include "OrvoPayloadConnection.h"
#include "OrvoStreamConnection.h"
#include "fake_daemon.h"
#include "ksd_process.h"

using KSInterface::KSIntfLibrary;
using KSInterface::OrvoLibraryConnection;
using kstest::Wire;
using OrvoNet::OrvoConnection;
using OrvoSupport::OrvoLogging;
using OrvoSupport::OrvoSmartPointer;
using OrvoSupport::OrvoString;

namespace {

std::string where(OrvoConnection* p) {
    if (auto* pTcp = dynamic_cast<OrvoNet::OrvoSocketConnection*>(p))
        return "tcp " + pTcp->getHost() + ":" + std::to_string(pTcp->getPort());
    auto* pPipe = dynamic_cast<OrvoNet::OrvoPipeConnection*>(p);
    return pPipe ? "pipe " + pPipe->getPipeName() : "other";
}

}  // namespace

// Nothing configured, nothing bounded: only a positive number of ms sets a reply deadline.
TEST(FrameReplyDeadline, OnlyAPositiveSettingBoundsTheWait) {
    const std::vector<std::pair<const char*, long>> cases = {{nullptr, -1}, {"", -1},   {"2500", 2500},
                                                             {"0", -1},     {"-5", -1}, {"12x", -1}};
    for (const auto& [pszValue, nWant] : cases) {
        kstest::ScopedEnv env("KSINTF_REPLY_TIMEOUT_MS", pszValue);
        EXPECT_EQ(KSInterface::replyTimeoutMs(), nWant) << (pszValue ? pszValue : "unset");
    }
}

// Every form picks its transport and address; only an unknown form is a
// configuration problem worth a level-1 record (checked without connecting).
TEST(FrameConnectionType, EveryFormChoosesItsTransport) {
    struct ConnCase {
        const char* pszValue;  // null: variable unset
        std::string sWhere;    // "pipe <name>" or "tcp <host>:<port>"
        bool bUnknown = false;  // worked around with a level-1 record
    };
    const ConnCase cases[] = {
        {nullptr, "pipe osm_ks_shrsvc"},   {"pipe", "pipe osm_ks_shrsvc"},  {"pipeline", "pipe osm_ks_shrsvc"},
        {"pipe:abc", "pipe abc"},          {"pipe:", "pipe "},              {"pipe:a:b", "pipe a:b"},
        {"socket", "tcp 127.0.0.1:1311"},  {"socketx", "tcp 127.0.0.1:1311"}, {"socket:1400", "tcp :1400"},
        {"socket:h:1400", "tcp :0"},       {"PIPE", "pipe osm_ks_shrsvc", true}, {"sock", "pipe osm_ks_shrsvc", true},
        {"", "pipe osm_ks_shrsvc", true},  {" pipe", "pipe osm_ks_shrsvc", true},
    };
    int nWarnings = 0;
    OrvoLogging::getInstance().setLogLevel(9);
    OrvoLogging::getInstance().setSink([&nWarnings](int nLevel, const std::string&) { nWarnings += nLevel == 1; });
    for (const ConnCase& c : cases) {
        SCOPED_TRACE(c.pszValue ? c.pszValue : "(unset)");
        kstest::ScopedEnv env("KSINTF_CONN_TYPE", c.pszValue);
        OrvoSmartPointer<OrvoConnection> memory(new OrvoNet::OrvoPayloadConnection(""));
        OrvoLibraryConnection connection(memory);
        nWarnings = 0;
        connection.establishConnection();
        EXPECT_EQ(nWarnings, c.bUnknown ? 1 : 0);
        EXPECT_EQ(where(connection.transport()), c.sWhere);
    }
    OrvoLogging::getInstance().setSink({});
    OrvoLogging::getInstance().setLogLevel(0);
}

// A unique pipe name reaches the fake daemon: exact header, trailer read,
// and (ten fields in all) everything in one send.
TEST(FrameConnectionType, AUniquePipeCarriesTenFieldsInOneSend) {
    const std::string sHeader = Wire().addShort(1).addShort(7777).addString("Scheduler").addString("TRVX_TS_SCHEDULE");
    const std::string sFields =
        Wire().addShort(-2).addInt(123456).addLong(1L << 40).addBool(true).addString("program").addString("");
    kstest::FakeDaemon daemon;
    daemon.expect({Wire().addInt(5)});
    ASSERT_TRUE(daemon.start());
    kstest::ScopedEnv env("KSINTF_CONN_TYPE", daemon.connType());
    long nSends = 0;
    {
        OrvoLibraryConnection connection("Scheduler", "TRVX_TS_SCHEDULE");
        connection.transfer(static_cast<short>(-2));
        connection.transfer(123456);
        connection.transfer(1L << 40);
        connection.transfer(true);
        connection.transfer(OrvoString("program"));
        connection.transfer(OrvoString(""));
        EXPECT_EQ(connection.receiveInt(), 5);
        nSends = dynamic_cast<OrvoNet::OrvoStreamConnection&>(*connection.transport()).sendCalls();
    }
    EXPECT_EQ(nSends, 1);
    EXPECT_EQ(daemon.requests().at(0).bytes, sHeader + sFields);
    EXPECT_TRUE(daemon.waitForClientClosed(1));  // the trailer was read and the transport closed
}
// Loading attaches once (the publication lock exists: a publish with no
// daemon fails cleanly) and unloading detaches once, deleting nothing that
// was never made. A second load initialises nothing, so one explicit finit
// detaches and the unloads detach no more. An explicit init/finit pair inside
// one load only counts.
TEST(FrameModule, LoadAndUnloadStartAndStopTheLibraryOnce) {
    // The frame's trace lines as letters: I init, F and f finit's start and end, D the stop.
    const std::pair<const char*, char> kMarks[] = {{"KSIntfInitModuleData: entering", 'I'},
                                                   {"KSIntfFinitModuleData: entering", 'F'},
                                                   {"KSIntfFinitModuleData: exiting", 'f'},
                                                   {"ksintf::Module::detach: entering", 'D'}};
    for (const auto& [sScenario, sExpected] :
         {std::pair<std::string, std::string>{"once", "D"}, {"twice", "FDf"}, {"init", "IFfD"}}) {
        kstest::ScopedTempDir dir;
        kstest::ChildProcess helper(FRAME_DLOPEN_HELPER, {KSINTF_LIBRARY_FILE, sScenario},
                                    {{"OSUPT_LOG_LEVEL", "9"},
                                     {"OSUPT_LOG_FILE", dir.path() + "/log"},
                                     {"KSINTF_CONN_TYPE", "pipe:" + kstest::uniqueName("kstest-nodaemon")}});
        std::string sOut, sLine;
        while (helper.readLine(sLine)) sOut += sLine + "\n";
        EXPECT_EQ(helper.wait(), 0) << sOut;
        EXPECT_EQ(sOut, sScenario == "once" ? "notify=-111\nunloaded=1\n" : "unloaded=1\n");
        std::string sEvents;
        std::ifstream log(dir.path() + "/log");
        for (std::string s; std::getline(log, s);) {
            for (const auto& [pszMark, c] : kMarks)
                if (s.ends_with(pszMark)) sEvents += c;
            if (s.find("KSIntfLibrary::") != std::string::npos) sEvents += 'S';  // the stop made the singleton
        }
        EXPECT_EQ(sEvents, sExpected) << sScenario;
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
    for (int attempt = 0; attempt < 2; ++attempt)
        EXPECT_EQ(kstest::exceptionCode([] { KSIntfLibrary::getSharedLibraryConnection(); }), ECONNREFUSED);
    ASSERT_TRUE(daemon.start());
    KSInterface::OrvoLibraryConnection& shared = KSIntfLibrary::getSharedLibraryConnection();
    EXPECT_EQ(&KSIntfLibrary::getSharedLibraryConnection(), &shared);
    EXPECT_FALSE(shared.isRequestActive());
    KSIntfLibrary::deleteSharedLibraryConnection();
    KSIntfLibrary::deleteInstance();
}
