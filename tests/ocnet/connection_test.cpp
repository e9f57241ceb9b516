// Buffered stream connections: typed transfers checked byte for byte at the
// other end of a socketpair, the errno codes of malformed input, end of
// stream, failed writes and connects, reopening; then whole requests over the
// real pipe and TCP transports against the fake daemon.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>

#include "OrvoException.h"
#include "OrvoPeerCredentials.h"
#include "OrvoStreamConnection.h"
#include "fake_daemon.h"
#include "other_user.h"
#include "wait_until.h"

using kstest::Wire;
using OrvoNet::OrvoString;

namespace {

// Each (re)open creates a new socketpair; `peer` is the test's end of the
// latest one (the previous one is closed).
class PairConnection : public OrvoNet::OrvoStreamConnection {
public:
    PairConnection() { EXPECT_EQ(establishImpl(m_sWhat), 0); }
    ~PairConnection() override { ::close(peer); }
    int opens = 0, peer = -1;
    bool failOpen = false;
    OrvoString m_sWhat;

    // Exactly n bytes (fewer only when the peer end waited 5 s in vain).
    std::string peerRead(std::size_t n) {
        std::string s(n, '\0');
        return s.substr(0, static_cast<std::size_t>(std::max(::recv(peer, s.data(), n, MSG_WAITALL), ssize_t(0))));
    }
    bool peerIdle() {
        char c;
        return ::recv(peer, &c, 1, MSG_DONTWAIT) < 0;
    }
    void peerWrite(const std::string& s) { ASSERT_EQ(::send(peer, s.data(), s.size(), 0), ssize_t(s.size())); }

protected:
    int openSocket(OrvoString& sWhat) override {
        sWhat = "socketpair";
        int sv[2];
        if (failOpen) errno = ECONNREFUSED;
        if (failOpen || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return -1;
        const timeval limit{5, 0};
        ::setsockopt(sv[1], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::close(peer);
        peer = sv[1];
        ++opens;
        return sv[0];
    }
};

// The code of the OrvoException that f throws, or 0 when it throws none.
int codeOf(const std::function<void()>& f, std::string* pMessage = nullptr) {
    try {
        f();
    } catch (const OrvoSupport::OrvoException& e) {
        if (pMessage) *pMessage = e.getMessage();
        return e.getCode();
    }
    return 0;
}

}  // namespace

// Small fields wait in the buffer and leave in one send when the reply is read.
TEST(StreamConnection, TypedValuesHaveExactBytesAndLeaveInOneSend) {
    PairConnection conn;
    conn.transfer(static_cast<short>(-2));
    conn.transfer(0x01020304);
    conn.transfer(-3L);
    conn.transfer(true);
    conn.transfer(OrvoString("a\0c", 3));
    long error = -1;
    EXPECT_EQ(conn.transfer("RAW", 3, &error), 3);
    for (int i = 0; i < 5; ++i) conn.transfer(OrvoString());
    EXPECT_TRUE(conn.peerIdle());
    conn.peerWrite(Wire().addShort(-32768).addInt(INT32_MIN).addLong(-2).addBool(false).addString("ok"));
    char peek[3];
    int nSize = 3, nError = -1;
    ASSERT_EQ(conn.peekBytes(peek, nSize, nError), 0);  // a socketpair's bytes are there at once
    EXPECT_EQ(std::string(peek, 3), Wire().addShort(-32768).bytes());
    EXPECT_EQ(conn.receiveShort(), -32768);  // the peek consumed nothing
    EXPECT_EQ(conn.sendCalls(), 1);
    EXPECT_EQ(conn.receiveInt(), INT32_MIN);
    EXPECT_EQ(conn.receiveLong(), -2L);
    EXPECT_FALSE(conn.receiveBool());
    EXPECT_EQ(conn.receiveString(), "ok");
    Wire sent = Wire().addShort(-2).addInt(0x01020304).addLong(-3).addBool(true).addString(std::string("a\0c", 3));
    sent.addRaw("RAW").addString("").addString("").addString("").addString("").addString("");
    EXPECT_EQ(conn.peerRead(sent.bytes().size()), sent.bytes());
    EXPECT_TRUE(conn.peerIdle());
}

TEST(StreamConnection, LargeValuesGoOutEarlyArriveWholeAndOverLimitIsRefused) {
    PairConnection conn;
    const OrvoString sBig(OrvoNet::OrvoStreamConnection::kFlushThreshold + 100, 'z');
    conn.transfer(sBig);  // past the threshold: sent before any read
    EXPECT_EQ(conn.peerRead(5 + sBig.size()), Wire().addString(sBig).bytes());
    EXPECT_EQ(codeOf([&] { conn.transfer(OrvoString(16u * 1024 * 1024 + 1, 'x')); }), EMSGSIZE);
    conn.flush();
    EXPECT_TRUE(conn.peerIdle());  // nothing of it was sent
    std::string sHuge(300 * 1024, '\0');
    for (std::size_t i = 0; i < sHuge.size(); ++i) sHuge[i] = static_cast<char>(i * 7);
    std::thread writer([&] { conn.peerWrite(Wire().addString(sHuge)); });
    EXPECT_EQ(conn.receiveString(), sHuge);
    writer.join();
}

// Malformed input fails with its code and closes the connection; an error
// value brings the peer's code and message.
TEST(StreamConnection, MalformedInputEndOfStreamAndErrorValues) {
    const struct {
        std::string input;
        char receive;  // what the test reads: a long, a bool or a string
        int nCode;
    } cases[] = {
        {Wire().addInt(1), 'l', EPROTO},
        {std::string("b\x02"), 'b', EPROTO},
        {std::string("s\xff\xff\xff\xfe", 5), 's', EMSGSIZE},  // no body follows: must not wait
        {std::string("s\x01\x00\x00\x01", 5), 's', EMSGSIZE},
        {"", 'l', ECONNRESET},  // end of stream at the start or within a value
        {std::string("s\0\0\0\x0a"
                     "ab",
                     7),
         's', ECONNRESET},
        {Wire().addError(13, "denied"), 'l', 13},
    };
    for (const auto& c : cases) {
        PairConnection conn;
        conn.peerWrite(c.input);
        if (c.nCode == ECONNRESET) ::shutdown(conn.peer, SHUT_WR);
        const auto read = [&] {
            if (c.receive == 'b') conn.receiveBool();
            if (c.receive == 's') conn.receiveString();
            if (c.receive == 'l') conn.receiveLong();
        };
        std::string sMessage;
        EXPECT_EQ(codeOf(read, &sMessage), c.nCode) << testing::PrintToString(c.input);
        EXPECT_TRUE(c.nCode == 13 || !conn.isOpen());
        EXPECT_EQ(sMessage.find("denied") == 0, c.nCode == 13) << sMessage;
    }
}

TEST(StreamConnection, FailedWriteIsEpipeAFailedReopenIsRetriedAndDisconnectDropsOutput) {
    PairConnection conn;
    ::shutdown(conn.peer, SHUT_RDWR);
    conn.transfer(5);
    EXPECT_EQ(codeOf([&] { conn.flush(); }), EPIPE);  // and no SIGPIPE
    EXPECT_FALSE(conn.isOpen());
    conn.failOpen = true;
    EXPECT_EQ(codeOf([&] { conn.transfer(6); }), ECONNREFUSED);
    conn.failOpen = false;
    conn.transfer(7);
    conn.disconnect();  // drops what was buffered
    conn.transfer(8);
    conn.flush();
    EXPECT_EQ(conn.opens, 3);
    EXPECT_EQ(conn.peerRead(5), Wire().addInt(8).bytes());
    EXPECT_TRUE(conn.peerIdle());
}

// Before the first write of a new request, a peer that closed meanwhile or
// unread stale input makes the connection reopen; a healthy one is kept.
TEST(StreamConnection, NextRequestReopensOnlyWhenTheOldSocketIsUnusable) {
    for (int nCase = 0; nCase < 3; ++nCase) {
        PairConnection conn;
        conn.transfer(1);
        conn.peerWrite(Wire().addInt(0).addRaw(nCase == 1 ? Wire().addInt(99).bytes() : ""));  // one value too many
        EXPECT_EQ(conn.receiveInt(), 0);
        EXPECT_EQ(conn.peerRead(5), Wire().addInt(1).bytes());
        if (nCase == 2) ::shutdown(conn.peer, SHUT_RDWR);  // the peer restarts
        conn.transfer(2);
        EXPECT_EQ(conn.opens, nCase == 0 ? 1 : 2) << nCase;
        conn.peerWrite(Wire().addInt(5));
        EXPECT_EQ(conn.receiveInt(), 5);
        EXPECT_EQ(conn.peerRead(5), Wire().addInt(2).bytes());
    }
}

TEST(StreamConnection, NobodyListeningIsEconnrefusedAMissingPathEnoent) {
    kstest::FakeDaemon tcp(kstest::Transport::tcp);
    ASSERT_TRUE(tcp.start());
    tcp.stop();
    kstest::ScopedTempDir dir;
    const std::pair<std::shared_ptr<OrvoNet::OrvoConnection>, int> cases[] = {
        {std::make_shared<OrvoNet::OrvoPipeConnection>(kstest::uniqueName("kstest-nobody")), ECONNREFUSED},
        {std::make_shared<OrvoNet::OrvoPipeConnection>(dir.path() + "/no-such-socket"), ENOENT},
        {std::make_shared<OrvoNet::OrvoSocketConnection>("", tcp.port(), true, false), ECONNREFUSED}};
    for (const auto& c : cases) {
        const auto& pConn = c.first;  // a plain name: lambdas cannot capture bindings in C++20 with clang 14
        const int nCode = c.second;
        OrvoString sMessage;
        EXPECT_EQ(pConn->establishImpl(sMessage), nCode);
        EXPECT_NE(sMessage, "");
        EXPECT_EQ(codeOf([&] { pConn->transfer(1); }), nCode);  // a typed write tries again
    }
}

// Whole requests against the fake daemon over pipe and TCP: a reply cut short,
// the next request on a new connection, and a daemon restart in between.
using Exchange = ::testing::TestWithParam<kstest::Transport>;

TEST_P(Exchange, RequestsSurviveACutReplyAndADaemonRestart) {
    kstest::FakeDaemon daemon(GetParam());
    const auto echo = [](const kstest::Request& r) { return Wire().addLong(r.integer(0)).bytes(); };
    daemon.expect(
        {.service = "JobStatus", .fields = {kstest::Field::Long()}, .replyFn = echo, .closeAfterReplyBytes = 4});
    daemon.expect({.service = "JobStatus", .fields = {kstest::Field::Long()}, .replyFn = echo, .persistent = true});
    ASSERT_TRUE(daemon.start());
    OrvoNet::noteDaemonUid(-7);
    std::unique_ptr<OrvoNet::OrvoStreamConnection> conn;
    if (GetParam() == kstest::Transport::pipe)
        conn = std::make_unique<OrvoNet::OrvoPipeConnection>(daemon.pipeName());
    else
        conn = std::make_unique<OrvoNet::OrvoSocketConnection>("", daemon.port(), true, false);
    // One whole request: header, a long (an int when bAsInt), reply and trailer.
    const auto request = [&](const char* pszService, long nProgress, bool bAsInt = false) {
        for (short n : {1, 7777}) conn->transfer(n);
        conn->transfer(OrvoString(pszService));
        conn->transfer(OrvoString("TRVX_JS_SET_PROGRESS"));
        bAsInt ? conn->transfer(static_cast<int>(nProgress)) : conn->transfer(nProgress);
        const long nReply = conn->receiveLong();
        EXPECT_EQ(conn->receiveShort(), 0);  // the trailer
        EXPECT_EQ(conn->receiveShort(), 7777);
        return nReply;
    };
    EXPECT_EQ(codeOf([&] { request("JobStatus", 1); }), ECONNRESET);  // reply cut after 4 bytes
    EXPECT_EQ(request("JobStatus", 20), 20);
    if (GetParam() == kstest::Transport::pipe) {
        EXPECT_EQ(OrvoNet::daemonUid(), static_cast<long>(::getuid())) << "pushes are checked against who answers";
    }
    EXPECT_EQ(request("JobStatus", 30), 30);
    EXPECT_EQ(conn->sendCalls(), 3);  // one send per request
    const std::string sHeader =
        Wire().addShort(1).addShort(7777).addString("JobStatus").addString("TRVX_JS_SET_PROGRESS");
    EXPECT_EQ(daemon.connectionBytes(2), sHeader + Wire().addLong(20).bytes() + sHeader + Wire().addLong(30).bytes());
    daemon.stop();
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(request("JobStatus", 40), 40);  // the first request after the restart is not lost
    // The fake daemon refuses what it was not told to expect, as the daemon
    // does, and then closes (the next request must not race that close).
    EXPECT_EQ(codeOf([&] { request("JobStatus", 1, true); }), EPROTO);
    conn->disconnect();
    EXPECT_EQ(codeOf([&] { request("Other", 1); }), ENOSYS);
}

INSTANTIATE_TEST_SUITE_P(Transports, Exchange, ::testing::Values(kstest::Transport::pipe, kstest::Transport::tcp),
                         [](const auto& info) { return info.param == kstest::Transport::pipe ? "pipe" : "tcp"; });

// Another user binds the daemon's name while it is down: not a byte goes to
// it, its uid is not taken for the daemon's (its pushes stay refused), and
// only a uid the caller names in KSINTF_DAEMON_UID is talked to.
TEST(Impostor, AListenerOfAnotherUidGetsNothingUnlessNamed) {
    const std::string sName = kstest::uniqueName("kstest-impostor");
    auto impostor = kstest::OtherUser::start([sName](kstest::OtherUser::Keep&) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un a;
        const unsigned nLen = OrvoNet::pipeAddress(sName, &a);
        if (::bind(fd, reinterpret_cast<sockaddr*>(&a), nLen) != 0 || ::listen(fd, 4) != 0) return std::string("no");
        std::string sGot;
        for (int i = 0; i < 3; ++i) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 10000) != 1) return sGot + "none";
            const int c = ::accept(fd, nullptr, nullptr);
            std::size_t nBytes = 0;
            char buf[256];
            for (ssize_t n; (n = ::recv(c, buf, sizeof buf, 0)) > 0;) nBytes += static_cast<std::size_t>(n);
            ::close(c);
            sGot += std::to_string(nBytes) + " ";
        }
        return sGot;
    });
    if (!impostor) GTEST_SKIP() << "needs root to act as another user";
    ASSERT_TRUE(kstest::waitUntil([&] {
        std::ifstream unix("/proc/net/unix");
        return std::string(std::istreambuf_iterator<char>(unix), {}).find("@" + sName) != std::string::npos;
    }));
    OrvoNet::noteDaemonUid(-7);
    {
        OrvoNet::OrvoPipeConnection conn(sName);
        OrvoString sMessage;
        EXPECT_EQ(conn.establishImpl(sMessage), EACCES);
        EXPECT_NE(sMessage.find("runs as uid 65534"), std::string::npos) << sMessage;
        EXPECT_EQ(codeOf([&] { conn.transfer(OrvoString("secret")); }), EACCES);
        EXPECT_EQ(OrvoNet::daemonUid(), -7);
    }
    {
        kstest::ScopedEnv env("KSINTF_DAEMON_UID", "65534");
        OrvoNet::OrvoPipeConnection conn(sName);
        conn.transfer(OrvoString("named"));
        conn.flush();
        EXPECT_EQ(OrvoNet::daemonUid(), 65534);
    }
    EXPECT_EQ(impostor->result(), "0 0 " + std::to_string(Wire().addString("named").bytes().size()) + " ");
}
