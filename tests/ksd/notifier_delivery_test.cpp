// The Notifier against a daemon on its own thread: subscriptions, ordered
// asynchronous delivery, bounded queues, unreachable subscribers, refusals,
// and its guards between users (as root: other users are played by children).
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string>

#include "core_test_util.h"
#include "other_user.h"
#include "push_sink.h"

namespace {

using namespace ksdtest;

using TestSink = kstest::PushSink;

constexpr uid_t kNobody = 65534;
constexpr uid_t kOther = 65533;

class NotifierTest : public ::testing::Test {
protected:
    // (Re)starts the daemon; its state outlives a restart.
    void start(ksd::NotifierLimits limits = {}) {
        server_.reset();
        server_ = std::make_unique<TestServer>([&](ksd::DaemonOptions& o) {
            o.notifier = limits;
            o.stateDir = state_.path();
        });
    }
    std::int64_t status(const std::string& name) {
        for (const auto& item : server_->thread.onLoop([&] { return server_->daemon().notifier().status(); }))
            if (item.name == name) return item.value;
        return -1;
    }
    // A reply's value, or kRefused + the error value's code.
    static constexpr std::int64_t kRefused = -1000;
    std::int64_t ask(const std::string& request, const std::string& address = "") {
        const Outcome o = call(address.empty() ? server_->address() : address, request);
        return o.ok ? o.value : kRefused + o.error;
    }
    std::int64_t notify(std::string_view event, std::string_view text = "", std::string_view payload = "") {
        return ask(notifyRequest(event, text, payload));
    }
    std::int64_t subscribe(std::string_view event, std::string_view address, std::int32_t id,
                           const std::string& via = "") {
        return ask(requestWire("Notifier", "TRVX_NN_REGISTER").addString(event).addString(address).addInt(id), via);
    }
    // `subscribe` made by `uid`, in a child process.
    std::string subscribeAs(uid_t uid, std::string_view event, std::string_view address, const std::string& via = "") {
        return kstest::runAs(uid, [&] { return std::to_string(subscribe(event, address, 1, via)); });
    }

    kstest::ScopedTempDir state_{"kstest-notifier"};
    std::unique_ptr<TestServer> server_;
};

TEST_F(NotifierTest, DeliveryFollowsPublicationOrderOverOnePushConnection) {
    start();
    TestSink sink;
    ASSERT_EQ(subscribe("odd", sink.address(), 1), 0);
    ASSERT_EQ(subscribe("even", sink.address(), 2), 0);
    kstest::WireClient publisher;  // one long-lived connection, like the library's shared one
    ASSERT_TRUE(publisher.connect(server_->address()));
    for (int i = 0; i < 300; ++i) {
        const std::string request = notifyRequest(i % 2 ? "odd" : "even", std::to_string(i), std::string(i, 'p'));
        ASSERT_EQ(roundTrip(publisher, request).value, 1) << i;
    }
    for (int i = 0; i < 300; ++i)  // all read from the one push connection the sink accepts
        ASSERT_EQ(sink.next(), (i % 2 ? "1|udp:127.0.0.1:0|odd|" : "2|udp:127.0.0.1:0|even|") + std::to_string(i) +
                                   "|" + std::string(i, 'p'));
}

TEST_F(NotifierTest, AStalledSubscriberLosesOnlyItsOwnNotificationsAndTheyAreCounted) {
    ksd::NotifierLimits limits;
    limits.maxQueuedFrames = 20;
    start(limits);
    TestSink stalled, healthy;
    ASSERT_EQ(subscribe("load", stalled.address(), 1), 0);
    ASSERT_EQ(subscribe("load", healthy.address(), 1), 0);
    kstest::WireClient publisher;
    ASSERT_TRUE(publisher.connect(server_->address()));
    constexpr int kCount = 1000;
    std::int64_t queued = 0;
    for (int i = 0; i < kCount; ++i) {
        const Outcome o = roundTrip(publisher, notifyRequest("load", std::to_string(i), std::string(32768, 'L')));
        ASSERT_TRUE(o.ok) << "the publisher is answered whatever the stalled subscriber does, at " << i;
        queued += o.value;
        // In step with the healthy subscriber, so that only the stalled one can reach the bound.
        ASSERT_EQ(healthy.next(), "1|udp:127.0.0.1:0|load|" + std::to_string(i) + "|" + std::string(32768, 'L'));
    }
    EXPECT_GT(status("queue_drops"), 0);
    EXPECT_EQ(status("queue_drops"), 2 * kCount - queued) << "every notification not queued is counted";
}

TEST_F(NotifierTest, AnUnreachableVanishedOrSweptSubscriberLosesItsSubscriptions) {
    start();
    const std::string nobody = "pipe:" + kstest::uniqueName("kstest-nobody");
    ASSERT_EQ(subscribe("e", nobody, 1), 0);
    ASSERT_EQ(subscribe("f", nobody, 2), 0);
    EXPECT_EQ(notify("e"), 1) << "queued; delivery is asynchronous";
    ASSERT_TRUE(waitUntil([&] { return status("subscriptions") == 0; })) << "connection refused drops both";
    EXPECT_EQ(notify("f"), 0);

    TestSink sink;
    ASSERT_EQ(subscribe("g", sink.address(), 3), 0);
    ASSERT_EQ(notify("g", "1"), 1);
    ASSERT_EQ(sink.next(), "3|udp:127.0.0.1:0|g|1|");
    sink.stop();  // the subscriber's process goes away
    ASSERT_TRUE(waitUntil([&] { return status("subscriptions") == 0; }));
    EXPECT_EQ(notify("g", "2"), 0);

    // With a sweep, a listener gone before any push goes too.
    ksd::NotifierLimits limits;
    limits.sweepInterval = std::chrono::milliseconds(200);
    start(limits);
    TestSink gone, staying;
    ASSERT_EQ(subscribe("e", gone.address(), 1), 0);
    ASSERT_EQ(subscribe("e", staying.address(), 1), 0);
    gone.stop();
    ASSERT_TRUE(waitUntil([&] { return status("subscriptions") == 1; }));
    const std::string list = kstest::operatorQuery(server_->address(), "subscriptions");
    EXPECT_NE(list.find(staying.address()), std::string::npos) << list;
}

TEST_F(NotifierTest, ForeignAddressesDaemonEventsAndOversizedNotificationsAreRefused) {
    ksd::NotifierLimits limits;
    limits.maxPayload = 4096;
    start(limits);
    TestSink sink;
    EXPECT_EQ(subscribe("x", "socket:10.1.2.3:5000", 1), kRefused + EACCES);
    const std::string tcp = server_->tcpAddress();
    EXPECT_EQ(subscribe("x", sink.address(), 1, tcp), kRefused + EACCES) << "a TCP client cannot own a pipe";
    EXPECT_EQ(ask(notifyRequest("x", "", ""), tcp), 0) << "but may publish";
    TestSink tcpSink(TestSink::Tcp);
    EXPECT_EQ(subscribe("t", tcpSink.address(), 7, tcp), 0) << "and subscribe with a loopback port";
    EXPECT_EQ(ask(notifyRequest("t", "hi", ""), tcp), 1);
    EXPECT_EQ(tcpSink.next(), "7|udp:127.0.0.1:0|t|hi|");
    for (const char* event : {"OrvoRAEvent:printer$", "OrvoJSEvent:job$", "OrvoTSEventX"})
        EXPECT_EQ(notify(event), kRefused + EACCES) << event;
    EXPECT_EQ(notify("big", "", std::string(5000, 'b')), kRefused + EMSGSIZE);
    EXPECT_EQ(ask(requestWire("Notifier", "TRVX_NN_NOTIFY").addString("s").addString("e").addString("t").addLong(-1)),
              kRefused + EMSGSIZE);
    EXPECT_EQ(notify("small", "", std::string(1000, 's')), 0);
}

class NotifierSecurity : public NotifierTest {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as two other users";
        start();
    }
};

TEST_F(NotifierSecurity, AnotherUsersEarlierRegistrationNeitherBlocksNorReplacesMineAcrossARestart) {
    TestSink sink(TestSink::PipeNotListening);
    // The squatter registers the victim's future address first.
    ASSERT_EQ(subscribeAs(kNobody, "squat", sink.address()), "0");
    EXPECT_EQ(kstest::runAs(
                  kOther, [&] { return sink.listen() ? std::to_string(subscribe("mine", sink.address(), 1)) : "no"; }),
              "0");
    EXPECT_EQ(status("subscriptions"), 2);
    start();
    EXPECT_EQ(status("subscriptions"), 2) << "both restored, each with its owner";
    EXPECT_EQ(notify("mine", "t"), 1);
    EXPECT_EQ(sink.next(), "1|udp:127.0.0.1:0|mine|t|") << "the owner's event reaches its listener";
    const std::string unsubscribe = requestWire("Notifier", "TRVX_NN_UNREGISTER").addString(sink.address()).addInt(1);
    EXPECT_EQ(ask(unsubscribe), -2) << "root unregisters only its own";
    EXPECT_EQ(kstest::runAs(kNobody, [&] { return std::to_string(ask(unsubscribe)); }), "0");
    EXPECT_EQ(kstest::runAs(kNobody, [&] { return std::to_string(ask(unsubscribe)); }), "-2");
    EXPECT_EQ(status("subscriptions"), 1) << "the squatter's going took nothing of the owner's";
}

TEST_F(NotifierSecurity, ACallbackPathOrPortTheRegistrantCannotReachIsRefused) {
    kstest::ScopedTempDir dir("kstest-sec-dir");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0700), 0);
    const std::string path = dir.path() + "/root.sock";
    TestSink rootSocket(TestSink::Pipe, path);
    ASSERT_EQ(::chmod(path.c_str(), 0777), 0);
    EXPECT_EQ(subscribeAs(kNobody, "e", rootSocket.address()), "-13") << "the directory is root's alone";
    ASSERT_EQ(::chmod(dir.path().c_str(), 0711), 0);
    EXPECT_EQ(subscribeAs(kNobody, "e", rootSocket.address()), "0")
        << "a directory it may search, a socket it may write";
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    EXPECT_EQ(subscribeAs(kNobody, "e", rootSocket.address()), "-13") << "a socket it may not write";
    EXPECT_EQ(subscribe("e", rootSocket.address(), 1), 0) << "root may register anything";

    // A TCP socket belongs to whoever made it: made here as root, as nobody and as another user.
    const auto tcpSink = [](uid_t owner) {
        ::setfsuid(owner);
        auto sink = std::make_unique<TestSink>(TestSink::Tcp);
        ::setfsuid(0);
        return sink;
    };
    auto rootSink = tcpSink(0), nobodySink = tcpSink(kNobody), victimSink = tcpSink(kOther);
    const std::string rootPort = rootSink->address();
    EXPECT_EQ(subscribeAs(kNobody, "e", rootPort), "-13") << "root's port";
    EXPECT_EQ(subscribeAs(kNobody, "e", nobodySink->address()), "0") << "its own port";
    rootSink.reset();
    EXPECT_EQ(subscribeAs(kNobody, "e", rootPort), "-13") << "nobody listens";
    // Over TCP the registrant is its socket's owner: another user's sink port stays out of its reach.
    const std::string tcp = server_->tcpAddress();
    EXPECT_EQ(subscribeAs(kNobody, "forged", victimSink->address(), tcp), "-13");
    EXPECT_EQ(subscribeAs(kNobody, "forged", nobodySink->address(), tcp), "0") << "its own port";
    EXPECT_EQ(notify("forged"), 1) << "nothing is queued for the victim's port";
}

}  // namespace
