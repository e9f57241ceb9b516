// The callback sink: frames pushed over pipe or TCP reach the callback of
// their id; unknown ids, throwing callbacks and malformed frames leave the
// listener serving the next frame; pushes from another user are refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "OrvoException.h"
#include "OrvoLibraryCallbackSink.h"
#include "OrvoPeerCredentials.h"
#include "fake_daemon.h"
#include "other_user.h"
#include "wait_until.h"

using kstest::Wire;
using kstest::WireClient;

namespace {

// Reads a string and a long, like the simplest callback class, and notes
// "<id>:<text>/<number>"; or throws when told to.
class TestCallback : public OrvoNet::OrvoNotificationCallback {
public:
    TestCallback(int nId, kstest::Notes& seen, const char* pszThrow = nullptr)
        : OrvoNotificationCallback(nId), m_seen(seen), m_pszThrow(pszThrow) {}
    void doCallback(OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection>& spConnection) override {
        const std::string s = spConnection->receiveString();
        const long n = spConnection->receiveLong();
        if (m_pszThrow && *m_pszThrow == 'O') throw OrvoSupport::OrvoException(m_pszThrow, 77);
        if (m_pszThrow) throw std::runtime_error(m_pszThrow);
        m_seen.add(std::to_string(getId()) + ":" + s + "/" + std::to_string(n));
    }

private:
    kstest::Notes& m_seen;
    const char* m_pszThrow;
};

std::string payload(const std::string& s, long n) { return Wire().addString(s).addLong(n).bytes(); }

// The sink over an abstract pipe name (""), or over TCP ("socket").
class SinkTest : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (*GetParam()) m_env = std::make_unique<kstest::ScopedEnv>("OCNET_CALLBACK_TYPE", GetParam());
        // As if our request connections had reached a daemon of our own uid.
        OrvoNet::noteDaemonUid(static_cast<long>(getuid()));
        m_sink = std::make_unique<OrvoNet::OrvoLibraryCallbackSink>("test-sink");
    }
    int add(const char* pszThrow = nullptr) {
        auto& container = m_sink->getCallbackContainer();
        const int nId = container.getNewId();
        EXPECT_TRUE(container.add(OrvoNet::OrvoNotificationCallbackSP(new TestCallback(nId, m_seen, pszThrow))));
        return nId;
    }
    kstest::Notes m_seen;
    std::unique_ptr<kstest::ScopedEnv> m_env;
    std::unique_ptr<OrvoNet::OrvoLibraryCallbackSink> m_sink;
};

}  // namespace

// Frames are read in bulk and dispatched where they lie, each to the callback
// of its id: a burst longer than one read, frames larger than the read
// buffer, and frames whose header and payload straddle reads all arrive whole
// and in order. A frame half sent on one connection holds up no other, and
// its rest may come a byte at a time.
TEST_P(SinkTest, FramesArriveWholeInOrderAndNoConnectionHoldsUpAnother) {
    const std::string sAddress = m_sink->getCallbackAddress();
    const std::string sForm = *GetParam() ? "socket:127.0.0.1:" : "pipe:ksintf-cb-" + std::to_string(getpid()) + "-";
    EXPECT_EQ(sAddress.rfind(sForm, 0), 0u) << sAddress;
    EXPECT_EQ(m_sink->getCallbackAddress(), sAddress);
    const int a = add(), b = add();
    WireClient slow, push;
    ASSERT_TRUE(slow.connect(sAddress));
    ASSERT_TRUE(push.connect(sAddress));
    const std::string sSlow = kstest::encodeFrame(a, payload(std::string(1000, 'x'), -1));
    ASSERT_TRUE(slow.send(sSlow.substr(0, 7)));
    std::string burst;
    std::vector<std::string> expected;
    for (int i = 0; i < 3000; ++i) {
        // Mostly small, some larger than the 64 KiB read buffer, in between
        // sizes that leave a partial frame at the end of many reads.
        const std::size_t n =
            i % 500 == 7 ? 200 * 1024 + static_cast<std::size_t>(i) : 10 + static_cast<std::size_t>(i % 97);
        const std::string text(n, static_cast<char>('a' + i % 26));
        const int nId = i % 3 ? a : b;
        burst += kstest::encodeFrame(nId, payload(text, i));
        expected.push_back(std::to_string(nId) + ":" + text + "/" + std::to_string(i));
    }
    // Written in odd slices, so that a header too is cut across reads.
    std::thread writer([&] {
        for (std::size_t at = 0; at < burst.size(); at += 4093) ASSERT_TRUE(push.send(burst.substr(at, 4093)));
    });
    const auto seen = m_seen.take(expected.size());
    writer.join();
    ASSERT_EQ(seen.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) ASSERT_EQ(seen[i], expected[i]) << "frame " << i;
    for (char c : sSlow.substr(7)) ASSERT_TRUE(slow.send(std::string(1, c)));
    EXPECT_EQ(m_seen.take(1), std::vector<std::string>{std::to_string(a) + ":" + std::string(1000, 'x') + "/-1"});
}

TEST_P(SinkTest, BadFramesAndFailingCallbacksLeaveTheListenerServing) {
    const int good = add(), refusing = add("Orvo refused"), broken = add("std broke");
    WireClient push;
    ASSERT_TRUE(push.connect(m_sink->getCallbackAddress()));
    ASSERT_TRUE(push.push(good + 100, payload("lost", 0)));
    ASSERT_TRUE(push.push(refusing, payload("x", 0)));
    ASSERT_TRUE(push.push(broken, payload("y", 0)));
    ASSERT_TRUE(push.push(good, Wire().addString("short").bytes()));  // doCallback reads past the payload
    const std::string malformed[] = {Wire().addString("not an id"), Wire().addInt(good).addLong(3),
                                     Wire().addInt(good).addInt(-1), Wire().addInt(good).addInt(64 * 1024 * 1024 + 1)};
    for (const std::string& bytes : malformed) {
        WireClient bad;
        ASSERT_TRUE(bad.connect(m_sink->getCallbackAddress()));
        ASSERT_TRUE(bad.send(bytes));
        EXPECT_TRUE(bad.waitPeerClosed());  // only that connection is closed
    }
    ASSERT_TRUE(push.push(good, payload("after", 9)));
    // Frames of one connection are served in order: nothing before it was delivered.
    EXPECT_EQ(m_seen.take(1), std::vector<std::string>{std::to_string(good) + ":after/9"});
}

// Pushes from another uid than the daemon's (and not root) are closed unread.
// As root the pushing process is a child that has become nobody; otherwise we
// are the other uid, the daemon being made to look like someone else.
TEST_P(SinkTest, PushesFromAnotherUserAreRefused) {
    const int nId = add();
    const std::string sAddress = m_sink->getCallbackAddress();
    const auto forge = [&] {
        WireClient forger;
        if (!forger.connect(sAddress)) return std::string("cannot connect");
        forger.push(nId, payload("forged", 1));
        return std::string(forger.waitPeerClosed() ? "closed unanswered" : "still open");
    };
    if (getuid() == 0) {
        EXPECT_EQ(kstest::runAs(kstest::kOtherUid, forge), "closed unanswered");
    } else {
        OrvoNet::noteDaemonUid(static_cast<long>(getuid()) + 1);
        EXPECT_EQ(forge(), "closed unanswered");
    }
    // The daemon's own pushes after it get through, and only they.
    OrvoNet::noteDaemonUid(static_cast<long>(getuid()));
    WireClient daemon;
    ASSERT_TRUE(daemon.connect(sAddress));
    ASSERT_TRUE(daemon.push(nId, payload("real", 2)));
    ASSERT_TRUE(daemon.push(nId, payload("real", 3)));
    const std::string sId = std::to_string(nId);
    EXPECT_EQ(m_seen.take(2), (std::vector<std::string>{sId + ":real/2", sId + ":real/3"}));
}

// Another user may bind every name it can guess before we start: sink names
// carry 64 random bits, so there is none to guess.
TEST(SinkNames, CarryARandomPartNobodyCanBindInAdvance) {
    OrvoNet::OrvoLibraryCallbackSink first("first"), second("second");
    std::string sFirst, sSecond;
    ASSERT_NO_THROW(sFirst = first.getCallbackAddress());
    ASSERT_NO_THROW(sSecond = second.getCallbackAddress());
    const std::string sStem = "pipe:ksintf-cb-" + std::to_string(getpid()) + "-";
    for (const std::string& s : {sFirst, sSecond}) {
        ASSERT_EQ(s.rfind(sStem, 0), 0u) << s;
        EXPECT_EQ(s.size() - sStem.size(), 16u) << "64 random bits: " << s;
    }
    EXPECT_NE(sFirst, sSecond);
}

INSTANTIATE_TEST_SUITE_P(Transports, SinkTest, ::testing::Values("", "socket"),
                         [](const auto& info) { return *info.param ? "tcp" : "pipe"; });
