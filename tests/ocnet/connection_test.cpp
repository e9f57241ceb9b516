// Buffered stream connections at the other end of a socketpair: the errno
// codes of malformed input, end of stream, failed writes and connects,
// reopening; and a listener of another user posing as the daemon.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "OrvoPeerCredentials.h"
#include "OrvoStreamConnection.h"
#include "fake_daemon.h"
#include "other_user.h"
#include "wait_until.h"

using kstest::exceptionCode;
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

}  // namespace

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
        {"", 'l', ECONNRESET},                                 // end of stream at the start or within a value
        {Wire().addString("0123456789").bytes().substr(0, 7), 's', ECONNRESET},
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
        EXPECT_EQ(exceptionCode(read, &sMessage), c.nCode) << testing::PrintToString(c.input);
        EXPECT_TRUE(c.nCode == 13 || !conn.isOpen());
        EXPECT_EQ(sMessage.find("denied") == 0, c.nCode == 13) << sMessage;
    }
}

TEST(StreamConnection, FailedWriteIsEpipeAFailedReopenIsRetriedAndDisconnectDropsOutput) {
    PairConnection conn;
    ::shutdown(conn.peer, SHUT_RDWR);
    conn.transfer(5);
    EXPECT_EQ(exceptionCode([&] { conn.flush(); }), EPIPE);  // and no SIGPIPE
    EXPECT_FALSE(conn.isOpen());
    conn.failOpen = true;
    EXPECT_EQ(exceptionCode([&] { conn.transfer(6); }), ECONNREFUSED);
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

// Another user binds the daemon's name while it is down: not a byte goes to
// it, its uid is not taken for the daemon's (its pushes stay refused), and
// only a uid the caller names in KSINTF_DAEMON_UID is talked to.
TEST(Impostor, AListenerOfAnotherUidGetsNothingUnlessNamed) {
    kstest::FakeDaemon daemon;  // listens in the other user's process
    const std::string sName = daemon.connType().substr(5);
    auto impostor = kstest::OtherUser::start([&daemon](kstest::OtherUser::Keep&) {
        if (!daemon.start() || !daemon.waitForClientClosed(3)) return std::string("fewer than three connections");
        std::string sGot;  // the size of every request that came
        for (const kstest::Request& r : daemon.requests()) sGot += std::to_string(r.bytes.size()) + " ";
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
        EXPECT_EQ(exceptionCode([&] { conn.transfer(OrvoString("secret")); }), EACCES);
        EXPECT_EQ(OrvoNet::daemonUid(), -7);
    }
    {
        kstest::ScopedEnv env("KSINTF_DAEMON_UID", "65534");
        OrvoNet::OrvoPipeConnection conn(sName);
        conn.transfer(OrvoString("named"));
        conn.flush();
        EXPECT_EQ(OrvoNet::daemonUid(), 65534);
    }
    EXPECT_EQ(impostor->result(), std::to_string(Wire().addString("named").bytes().size()) + " ");
}
