// The Notifier's guards between users, against a real ksd: a registration
// made by one user never blocks or replaces another's; a callback path or
// port the registrant could not reach is refused; a vanished listener is swept.
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "OrvoCodec.h"
#include "fake_daemon.h"
#include "ksd_process.h"
#include "other_user.h"
#include "push_sink.h"
#include "wait_until.h"

namespace {

constexpr uid_t kNobody = 65534;
constexpr uid_t kOther = 65533;
constexpr std::int64_t kRefused = -1000;  // plus the error value's code

// One request on a connection of its own: the reply's value, kRefused + code
// for an error value, -9999 when nothing came.
std::int64_t ask(const std::string& daemon, const kstest::Wire& request) {
    kstest::WireClient c;
    OrvoNet::Codec::Value v;
    if (!c.connect(daemon) || !c.send(request.bytes()) || !c.readValue(v)) return -9999;
    return v.tag == OrvoNet::Codec::kTagError ? kRefused + v.integer : v.integer;
}
kstest::Wire request(const char* name) {
    return kstest::requestWire("Notifier", name);
}
std::int64_t subscribe(const std::string& daemon, const std::string& event, const std::string& address, int id) {
    return ask(daemon, request("TRVX_NN_REGISTER").addString(event).addString(address).addInt(id));
}
std::int64_t unsubscribe(const std::string& daemon, const std::string& address, int id) {
    return ask(daemon, request("TRVX_NN_UNREGISTER").addString(address).addInt(id));
}
std::int64_t notify(const std::string& daemon, const std::string& event) {
    return ask(daemon,
               request("TRVX_NN_NOTIFY").addString("test").addString(event).addString("t").addLong(0).addRaw(""));
}

class NotifierSecurity : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as two other users";
        ASSERT_TRUE(ksd_.start(args_)) << ksd_.log();
    }
    std::string daemon() const { return ksd_.connType(); }
    std::int64_t subscriptions() {
        const std::string status = kstest::operatorQuery(daemon(), "status");
        const auto at = status.find("\"subscriptions\":");
        return at == std::string::npos ? -1 : std::stoll(status.substr(at + 16));
    }

    std::vector<std::string> args_ = {"--log-level", "4", "--tcp-port", "0"};
    kstest::KsdProcess ksd_;
};

TEST_F(NotifierSecurity, AnotherUsersEarlierRegistrationNeitherBlocksNorReplacesMineAcrossARestart) {
    kstest::PushSink sink(kstest::PushSink::PipeNotListening);
    const std::string d = daemon();
    // The squatter registers the victim's future address first.
    ASSERT_EQ(kstest::runAs(kNobody, [&] { return std::to_string(subscribe(d, "squat", sink.address(), 1)); }), "0");
    EXPECT_EQ(
        kstest::runAs(kOther, [&] { return sink.listen() ? std::to_string(subscribe(d, "mine", sink.address(), 1)) : "no"; }),
        "0");
    EXPECT_EQ(subscriptions(), 2);
    ASSERT_TRUE(ksd_.restart()) << ksd_.log();
    EXPECT_EQ(subscriptions(), 2) << "both restored, each with its owner";
    EXPECT_EQ(notify(d, "mine"), 1);
    EXPECT_EQ(sink.next(), "1|test|mine|t|") << "the owner's event reaches its listener";
    EXPECT_EQ(unsubscribe(d, sink.address(), 1), -2) << "root unregisters only its own";
    EXPECT_EQ(kstest::runAs(kNobody, [&] { return std::to_string(unsubscribe(d, sink.address(), 1)); }), "0");
    EXPECT_EQ(kstest::runAs(kNobody, [&] { return std::to_string(unsubscribe(d, sink.address(), 1)); }), "-2");
    EXPECT_EQ(subscriptions(), 1) << "the squatter's going took nothing of the owner's";
}

TEST_F(NotifierSecurity, ACallbackPathOrPortTheRegistrantCannotReachIsRefused) {
    const std::string tcp = "socket:127.0.0.1:" + std::to_string(ksd_.tcpPort());  // before the log names others
    kstest::ScopedTempDir dir("kstest-sec-dir");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0700), 0);
    const std::string path = dir.path() + "/root.sock";
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strcpy(a.sun_path, path.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::listen(fd, 8), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0777), 0);
    const std::string d = daemon();
    const auto asNobody = [&](const std::string& address) {
        return kstest::runAs(kNobody, [&] { return std::to_string(subscribe(d, "e", address, 1)); });
    };
    EXPECT_EQ(asNobody("pipe:" + path), "-13") << "the directory is root's alone";
    ASSERT_EQ(::chmod(dir.path().c_str(), 0711), 0);
    EXPECT_EQ(asNobody("pipe:" + path), "0") << "a directory it may search, a socket it may write";
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    EXPECT_EQ(asNobody("pipe:" + path), "-13") << "a socket it may not write";
    EXPECT_EQ(subscribe(d, "e", "pipe:" + path, 1), 0) << "root may register anything";
    ::close(fd);

    // A TCP socket belongs to whoever made it: made here as root, as nobody and as another user.
    const auto tcpSink = [](uid_t owner) {
        ::setfsuid(owner);
        auto sink = std::make_unique<kstest::PushSink>(kstest::PushSink::Tcp);
        ::setfsuid(0);
        return sink;
    };
    auto rootSink = tcpSink(0), nobodySink = tcpSink(kNobody), victimSink = tcpSink(kOther);
    const std::string rootPort = rootSink->address();
    EXPECT_EQ(asNobody(rootPort), "-13") << "root's port";
    EXPECT_EQ(asNobody(nobodySink->address()), "0") << "its own port";
    rootSink.reset();
    EXPECT_EQ(asNobody(rootPort), "-13") << "nobody listens";
    // Over TCP the registrant is its socket's owner: another user's sink port stays out of its reach.
    const auto overTcp = [&](const std::string& address) {
        return kstest::runAs(kNobody, [&] { return std::to_string(subscribe(tcp, "forged", address, 1)); });
    };
    EXPECT_EQ(overTcp(victimSink->address()), "-13");
    EXPECT_EQ(overTcp(nobodySink->address()), "0") << "its own port";
    EXPECT_EQ(notify(d, "forged"), 1) << "nothing is queued for the victim's port";
}

class NotifierSweep : public NotifierSecurity {
protected:
    NotifierSweep() { args_.insert(args_.end(), {"--subscription-sweep-ms", "200"}); }
};

TEST_F(NotifierSweep, AListenerThatWentAwayLosesItsSubscriptionsWithoutAnyPush) {
    const std::string d = daemon();
    kstest::PushSink gone, staying;
    ASSERT_EQ(subscribe(d, "e", gone.address(), 1), 0);
    ASSERT_EQ(subscribe(d, "e", staying.address(), 1), 0);
    gone.stop();
    ASSERT_TRUE(kstest::waitUntil([&] { return subscriptions() == 1; })) << ksd_.log();
    const std::string list = kstest::operatorQuery(d, "subscriptions");
    EXPECT_NE(list.find(staying.address()), std::string::npos) << list;
}

}  // namespace
