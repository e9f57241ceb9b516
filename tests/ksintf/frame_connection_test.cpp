// OrvoLibraryConnection: transport choice from KSINTF_CONN_TYPE, request
// framing: one send per request, the trailer read.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "KSIntfInternal.h"
#include "OrvoLibraryConnection.h"
#include "OrvoPayloadConnection.h"
#include "OrvoStreamConnection.h"
#include "fake_daemon.h"
#include "frame_test_util.h"

using frametest::Records;
using KSInterface::OrvoLibraryConnection;
using kstest::Wire;
using OrvoNet::OrvoConnection;
using OrvoSupport::OrvoSmartPointer;
using OrvoSupport::OrvoString;

namespace {

struct ConnCase {
    const char* pszValue;  // null: variable unset
    std::string sWhere;    // "pipe <name>" or "tcp <host>:<port>"
    bool bUnknown = false;  // worked around with a level-1 record
};

std::vector<ConnCase> allCases() {
    return {
        {nullptr, "pipe osm_ks_shrsvc"},   {"pipe", "pipe osm_ks_shrsvc"},  {"pipeline", "pipe osm_ks_shrsvc"},
        {"pipe:abc", "pipe abc"},          {"pipe:", "pipe "},              {"pipe:a:b", "pipe a:b"},
        {"socket", "tcp 127.0.0.1:1311"},  {"socketx", "tcp 127.0.0.1:1311"}, {"socket:1400", "tcp :1400"},
        {"socket:h:1400", "tcp :0"},       {"PIPE", "pipe osm_ks_shrsvc", true}, {"sock", "pipe osm_ks_shrsvc", true},
        {"", "pipe osm_ks_shrsvc", true},  {" pipe", "pipe osm_ks_shrsvc", true},
    };
}


std::string where(OrvoConnection* p) {
    if (auto* pTcp = dynamic_cast<OrvoNet::OrvoSocketConnection*>(p))
        return "tcp " + pTcp->getHost() + ":" + std::to_string(pTcp->getPort());
    auto* pPipe = dynamic_cast<OrvoNet::OrvoPipeConnection*>(p);
    return pPipe ? "pipe " + pPipe->getPipeName() : "other";
}

// Sets KSINTF_CONN_TYPE for one scope; null unsets it.
struct ConnTypeEnv : kstest::ScopedEnv {
    explicit ConnTypeEnv(const char* pszValue) : ScopedEnv("KSINTF_CONN_TYPE", pszValue ? pszValue : "") {
        if (!pszValue) unsetenv("KSINTF_CONN_TYPE");
    }
};

}  // namespace

// Nothing configured, nothing bounded: only a positive number of ms sets a reply deadline.
TEST(FrameReplyDeadline, OnlyAPositiveSettingBoundsTheWait) {
    const std::vector<std::pair<const char*, long>> cases = {{nullptr, -1}, {"", -1},   {"2500", 2500},
                                                             {"0", -1},     {"-5", -1}, {"12x", -1}};
    for (const auto& [pszValue, nWant] : cases) {
        kstest::ScopedEnv env("KSINTF_REPLY_TIMEOUT_MS", pszValue ? pszValue : "");
        if (!pszValue) unsetenv("KSINTF_REPLY_TIMEOUT_MS");
        EXPECT_EQ(KSInterface::replyTimeoutMs(), nWant) << (pszValue ? pszValue : "unset");
    }
}

// Every form picks its transport and address; only an unknown form is a
// configuration problem worth a level-1 record (checked without connecting).
TEST(FrameConnectionType, EveryFormChoosesItsTransport) {
    for (const ConnCase& c : allCases()) {
        SCOPED_TRACE(c.pszValue ? c.pszValue : "(unset)");
        ConnTypeEnv env(c.pszValue);
        OrvoSmartPointer<OrvoConnection> memory(new OrvoNet::OrvoPayloadConnection(""));
        OrvoLibraryConnection connection(memory);
        frametest::LogCapture log;
        connection.establishConnection();
        const Records records = log.records();
        EXPECT_EQ(std::count_if(records.begin(), records.end(), [](const auto& r) { return r.first == 1; }),
                  c.bUnknown ? 1 : 0);
        EXPECT_EQ(where(connection.transport()), c.sWhere);
    }
}

// The fixed addresses (default pipe, empty pipe name, TCP port 1311) really
// connect, checked in a private network namespace where nothing but the
// test's listener can accept, and no daemon can be met.
TEST(FrameConnectionType, FixedAddressesConnectInPrivateNetwork) {
    const int nResult = frametest::runInPrivateNetwork([]() -> std::string {
        for (const ConnCase& c : allCases()) {
            const bool bTcp = c.sWhere.ends_with(":1311");
            if (!bTcp && c.sWhere != "pipe osm_ks_shrsvc" && c.sWhere != "pipe ") continue;
            const int listenFd = frametest::listenOn(bTcp, c.sWhere.substr(5), 1311);
            ConnTypeEnv env(c.pszValue);
            const std::string sFailure = frametest::failureOf([] { OrvoLibraryConnection connection; });
            close(listenFd);
            if (listenFd < 0 || sFailure != "none") return c.sWhere + ": " + sFailure;
        }
        return "";
    });
    if (nResult == 2) GTEST_SKIP() << "no private network namespace on this system";
    EXPECT_EQ(nResult, 0) << "the failing address is printed above";
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
    ConnTypeEnv env(daemon.connType().c_str());
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
