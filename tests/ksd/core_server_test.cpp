// The request layer: the incremental decoder, then the server at the socket
// with raw bytes in and replies, error values and closes out. No client,
// however it misbehaves, disturbs another; what one client or user can make
// the daemon hold is bounded (the budget of bytes for unfinished requests and
// the rate of refusal log lines on their own, then tried as the attacker would).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "core_test_util.h"
#include "other_user.h"
#include "protocol/request_parser.h"
#include "server/pending_budget.h"
#include "server/refusal_log.h"

namespace {

using namespace ksdtest;
using kstest::Wire;
using kstest::WireClient;
using Result = ksd::RequestParser::Result;

// Feeds bytes from `at` in chunks of `chunk` until a request is whole or refused.
Result feed(ksd::RequestParser& p, const std::string& bytes, std::size_t& at, std::size_t chunk) {
    for (;;) {
        const std::size_t n = std::min(chunk, bytes.size() - at);
        std::size_t took = 0;
        const Result r = p.parse(bytes.data() + at, n, took);
        at += took;
        if (r != Result::indeterminate || at == bytes.size()) return r;
        EXPECT_EQ(took, n) << "an indeterminate parse keeps every byte it is given";
        EXPECT_TRUE(p.started()) << "what tells half a request from an idle connection";
    }
}

// Malformed input is refused by the parser; see the table at the socket below.
TEST(RequestParser, AnyChunkingYieldsTheSameRequestsOneAtATime) {
    ksd::Registry registry;
    registry.add(std::make_unique<TestService>());
    const std::string body(300, 'x');
    const std::string all =
        requestWire("Test", "ALL").addShort(-2).addInt(-70000).addLong(1LL << 40).addBool(true).addString(body);
    const std::string blob = requestWire("Test", "BLOB").addLong(5).addRaw("abcde");
    const std::string bytes = all + blob + requestWire("Test", "BLOB").addLong(0).bytes();
    for (std::size_t chunk : {1, 2, 3, 7, 64, 1 << 20}) {
        ksd::RequestParser p(registry);
        std::size_t at = 0;
        ASSERT_EQ(feed(p, bytes, at, chunk), Result::good) << chunk;
        EXPECT_EQ(at, all.size()) << "a request stops at its own end";
        EXPECT_EQ(p.service() + "/" + p.request(), "Test/ALL");
        ASSERT_EQ(p.fields().size(), 5u);
        const auto& f = p.fields();
        EXPECT_EQ(std::vector<std::int64_t>({f[0].integer, f[1].integer, f[2].integer, f[3].integer}),
                  std::vector<std::int64_t>({-2, -70000, 1LL << 40, 1}));
        EXPECT_EQ(f[4].text, body);
        p.reset();
        EXPECT_FALSE(p.started());
        ASSERT_EQ(feed(p, bytes, at, chunk), Result::good) << chunk;
        EXPECT_EQ(p.fields()[1].text, "abcde");
        p.reset();
        ASSERT_EQ(feed(p, bytes, at, chunk), Result::good) << chunk;
        EXPECT_EQ(at, bytes.size());
        ASSERT_EQ(p.fields().size(), 2u) << "a zero-length raw run is a field too";
    }
}

TEST(CoreServer, PipelinedRequestsAreAnsweredInOrderWithThePeersIdentity) {
    TestServer server;
    std::string blob(3 << 20, '\0');
    for (std::size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<char>(i * 131 + i / 7);
    const std::string big(100000, 'b'), whoami = requestWire("Test", "WHOAMI");
    WireClient c;
    ASSERT_TRUE(c.connect(server.address()));
    ASSERT_TRUE(c.send(echoRequest("a") + echoRequest("") + echoRequest(big) + whoami +
                       requestWire("Test", "BLOB").addLong(3 << 20).addRaw(blob).bytes()));
    for (const std::string& want : {std::string("a"), std::string(), big,
                                    std::to_string(::getuid()) + " " + std::to_string(::getpid()) + " 1", blob}) {
        const Outcome o = readReply(c);
        EXPECT_TRUE(o.ok) << "every reply ends with short 0, short 7777";
        EXPECT_TRUE(o.text == want) << o.text.substr(0, 100);
    }
}

TEST(CoreServer, MalformedInputGetsOneErrorValueAtOnceAndTheConnectionCloses) {
    TestServer server;
    const std::string echo = requestWire("Test", "ECHO");
    const std::vector<std::tuple<const char*, std::string, int>> cases = {
        {"wrong magic", Wire().addShort(1).addShort(1234), EPROTO},
        {"wrong version", Wire().addShort(7).addShort(7777), EPROTO},
        {"version as int", Wire().addInt(1), EPROTO},
        {"text protocol", "GET / HTTP/1.1\r\nHost: x\r\n\r\n", EPROTO},
        {"service not a string", Wire().addShort(1).addShort(7777).addLong(5), EPROTO},
        {"unknown service", requestWire("Nothing", "ECHO"), ENOSYS},
        {"unknown request", requestWire("Test", "TRVX_NOPE"), ENOSYS},
        {"long service name", requestWire(std::string(257, 'n'), "ECHO"), EMSGSIZE},
        {"wrong tag", echo + Wire().addLong(1).bytes(), EPROTO},
        {"wrong tag, its first byte alone", echo + "i", EPROTO},
        {"unknown tag", echo + "Z", EPROTO},
        {"bool not 0 or 1", requestWire("Test", "ALL").addShort(1).addInt(1).addLong(1).bytes() + "b\x02", EPROTO},
        {"negative length", echo + std::string("s\x80\x00\x00\x00", 5), EMSGSIZE},
        {"huge length", echo + std::string("s\x7f\xff\xff\xff", 5), EMSGSIZE},
        {"length one past the limit", echo + std::string("s\x01\x00\x00\x01", 5), EMSGSIZE},
        {"plan refuses", requestWire("Test", "BLOB").addLong(-1), EMSGSIZE},
        {"huge raw run", requestWire("Test", "BLOB").addLong((64LL << 20) + 1), EMSGSIZE},
        {"service throws", requestWire("Test", "BOOM"), EIO},
    };
    for (const auto& [name, bytes, code] : cases) {
        // No body is awaited: the error value comes from what has arrived.
        WireClient client;
        ASSERT_TRUE(client.connect(server.address())) << name;
        const Outcome o = roundTrip(client, bytes);
        EXPECT_EQ(o.error, code) << name;
        EXPECT_FALSE(o.text.empty()) << name;
        EXPECT_TRUE(client.waitPeerClosed()) << name << ": the daemon closes after an error value";
    }
    EXPECT_TRUE(echoWorks(server.address()));
}

// The rest of a refused request is read and dropped, but only up to a bound.
TEST(CoreServer, WhatFollowsARefusedRequestIsDrainedOnlyUpToItsBound) {
    TestServer server([](ksd::DaemonOptions& o) {
        o.server.errorDrainBytes = 64 * 1024;
        o.server.errorDrainTime = std::chrono::minutes(1);
    });
    WireClient client;
    ASSERT_TRUE(client.connect(server.address()));
    ASSERT_EQ(roundTrip(client, requestWire("Test", "BLOB").addLong((64LL << 20) + 1)).error, EMSGSIZE);
    const std::string junk(16 * 1024, 'j');
    bool open = true;
    for (int i = 0; i < 256 && open; ++i) open = client.send(junk);
    EXPECT_FALSE(open) << "still draining after 4 MiB";
}

TEST(CoreServer, ARequestNotWholeInTimeIsCutOffButAnIdleConnectionStays) {
    TestServer server([](ksd::DaemonOptions& o) { o.server.requestTimeout = std::chrono::milliseconds(150); });
    WireClient idle, drip;
    ASSERT_TRUE(idle.connect(server.address()));
    ASSERT_TRUE(drip.connect(server.address()));
    const std::string request = echoRequest(std::string(4000, 'd'));
    Codec::Value v;
    bool open = true, answered = false;
    // Each byte comes well within the limit; the whole request never does.
    for (std::size_t i = 0; i < request.size() && open && !answered; ++i) {
        open = drip.send(request.substr(i, 1));
        answered = drip.readValue(v, open ? 20 : 5000);  // once closed, the error value is already here
    }
    ASSERT_TRUE(answered) << "the daemon waited for all " << request.size() << " bytes";
    EXPECT_EQ(v.tag, Codec::kTagError);
    EXPECT_EQ(v.integer, ETIMEDOUT);
    EXPECT_NE(v.text.find("150"), std::string::npos) << v.text;
    EXPECT_TRUE(drip.waitPeerClosed());
    // The idle connection outlived several request limits and still serves.
    EXPECT_EQ(roundTrip(idle, echoRequest("still here")).text, "still here");
}

TEST(CoreServer, AHeldRequestLearnsOnceThatItsClientLeft) {
    TestServer server;
    auto& held = server.service.held;
    WireClient c;
    ASSERT_TRUE(c.connect(server.address()));
    ASSERT_TRUE(c.send(requestWire("Test", "HOLD").bytes()));
    ASSERT_TRUE(waitUntil([&] { return server.thread.onLoop([&] { return held.size(); }) == 1; }));
    c.close();
    ASSERT_TRUE(waitUntil([&] { return server.service.closedWhileHeld.load() == 1; }));
    // Answering a request whose client is gone does nothing.
    EXPECT_FALSE(server.thread.onLoop([&] { return (held[0]->reply(Wire().addInt(1)), held[0]->isOpen()); }));
    EXPECT_EQ(server.service.closedWhileHeld.load(), 1);
}

// `n` connections, kept open until `keep` goes; none when one fails.
std::vector<std::shared_ptr<WireClient>> connectMany(const std::string& address, int n, kstest::OtherUser::Keep& keep) {
    std::vector<std::shared_ptr<WireClient>> clients;
    for (int i = 0; i < n; ++i) {
        auto c = std::make_shared<WireClient>();
        if (!c->connect(address)) return {};
        clients.push_back(c);
        keep.push_back(c);
    }
    return clients;
}

// Opens `n` connections and sends each a malformed request; answers
// "served refused silent": EPROTO answers, EDQUOT answers, closes without a word.
std::string openMany(const std::string& address, int n, kstest::OtherUser::Keep& keep) {
    int served = 0, refused = 0, silent = 0;
    std::string refusal;
    auto clients = connectMany(address, n, keep);
    if (clients.empty()) return "connect failed";
    for (auto& c : clients) c->send("XYZ");
    for (auto& c : clients) {
        const Outcome o = readReply(*c);
        served += o.error == EPROTO;
        refused += o.error == EDQUOT;
        silent += o.error == 0;
        if (o.error == EDQUOT) refusal = o.text;
    }
    return std::to_string(served) + " " + std::to_string(refused) + " " + std::to_string(silent) + " " + refusal;
}

TEST(CoreServer, AUserOverItsConnectionLimitIsRefusedAtOnceAndCrowdsOutNobody) {
    TestServer server([](ksd::DaemonOptions& o) {
        o.server.maxConnectionsPerUser = 40;
        o.server.maxConnections = 60;
        o.server.rootReserve = 10;
    });
    const auto connections = [&] { return server.thread.onLoop([&] { return server.daemon().connectionCount(); }); };
    auto other = kstest::OtherUser::start(
        [&](kstest::OtherUser::Keep& keep) { return openMany(server.address(), 100, keep); });
    if (!other) GTEST_SKIP() << "needs root to run a second user";
    EXPECT_EQ(other->result(), "40 60 0 too many connections for this user (limit 40)");
    EXPECT_EQ(connections(), 40u) << "refused connections never count toward the daemon's cap";
    auto third = kstest::OtherUser::start(
        [&](kstest::OtherUser::Keep& keep) { return openMany(server.address(), 20, keep); }, kstest::kOtherUid - 1);
    // Another user fills what the cap leaves, then the cap's last 10 are root's.
    EXPECT_EQ(third->result().substr(0, 7), "10 0 10");
    kstest::OtherUser::Keep mine;
    EXPECT_EQ(openMany(server.address(), 10, mine), "10 0 0 ") << "root's reserve, and root is bound by no user limit";
    other->finish();
    third->finish();
}

TEST(CoreServer, AThousandConnectionsOpenedAndDroppedLeaveTheServerServing) {
    TestServer server;
    const auto connections = [&] { return server.thread.onLoop([&] { return server.daemon().connectionCount(); }); };
    constexpr int kClients = 1000;
    // Dropped without a word, cut anywhere in a request, or gone before a large reply.
    const std::string full = echoRequest(std::string(200000, 'z'));
    for (int i = 0; i < kClients; ++i) {
        WireClient c;
        ASSERT_TRUE(c.connect(server.address()));
        ASSERT_TRUE(c.send(full.substr(0, i % 50 == 0 ? full.size() : static_cast<std::size_t>(i % 2 ? 0 : i % 64))));
    }
    EXPECT_TRUE(echoWorks(server.address()));
    EXPECT_TRUE(waitUntil([&] { return connections() == 0; }));
}

constexpr std::size_t kMiB = 1024 * 1024;

TEST(PendingBudget, AUserOverItsShareStopsAloneAndResumesWhenBytesReturn) {
    ksd::PendingBudget budget(100, 250);
    budget.hold(1000, 100);
    EXPECT_FALSE(budget.mayRead(1000, false, true)) << "at its own budget";
    EXPECT_TRUE(budget.mayRead(1001, false, false)) << "another user is not slowed";
    EXPECT_TRUE(budget.mayRead(0, true, true)) << "root is bound only by the daemon-wide budget";

    int resumed = 0;
    auto alive = std::make_shared<int>(0);
    auto gone = std::make_shared<int>(0);
    budget.waitForRoom(alive, [&] { ++resumed; });
    budget.waitForRoom(gone, [&] { resumed += 100; });
    gone.reset();
    budget.release(1000, 60);
    EXPECT_EQ(resumed, 1) << "a waiter is woken once, a closed one never";
    budget.release(1000, 40);
    EXPECT_EQ(resumed, 1);
    EXPECT_EQ(budget.heldBy(1000), 0u);
    EXPECT_TRUE(budget.mayRead(1000, false, true));
}

TEST(PendingBudget, TheDaemonWideBudgetStopsOnlyRequestsAlreadyBegun) {
    ksd::PendingBudget budget(100, 150);
    budget.hold(1000, 90);
    budget.hold(1001, 60);
    EXPECT_EQ(budget.held(), 150u);
    EXPECT_FALSE(budget.mayRead(1002, false, true)) << "a begun request waits for room";
    EXPECT_TRUE(budget.mayRead(1002, false, false)) << "a new small request is still read";
    EXPECT_FALSE(budget.mayRead(0, true, true)) << "root holding bytes waits like anyone";
    budget.release(1001, 60);
    EXPECT_TRUE(budget.mayRead(1002, false, true));
}

TEST(RefusalLog, OneLinePerUserPerIntervalCarryingTheCount) {
    ksd::RefusalLog log(std::chrono::seconds(60));
    const auto t0 = ksd::RefusalLog::Clock::time_point{} + std::chrono::hours(1);
    EXPECT_EQ(log.refused(1000, t0), 1u) << "the first refusal is logged at once";
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(log.refused(1000, t0 + std::chrono::seconds(i + 1)));
    EXPECT_EQ(log.refused(1001, t0 + std::chrono::seconds(2)), 1u) << "each user has its own line";
    EXPECT_FALSE(log.refused(1000, t0 + std::chrono::seconds(59)));
    EXPECT_EQ(log.refused(1000, t0 + std::chrono::seconds(61)), 7u) << "the line counts every refusal since the last";
}

// Sends `head`, then as much of `body` as the peer takes without blocking, on
// every connection, until none took anything for half a second: the bytes sent.
std::size_t pushUntilBlocked(std::vector<std::shared_ptr<WireClient>>& clients, const std::string& head,
                             std::string_view body) {
    constexpr std::size_t kChunk = 256 * 1024;
    std::vector<std::size_t> sent(clients.size(), 0);
    std::size_t total = 0;
    for (auto& c : clients) {
        ::fcntl(c->fd(), F_SETFL, O_NONBLOCK);
        if (::send(c->fd(), head.data(), head.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(head.size())) return 0;
    }
    auto idleSince = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - idleSince < std::chrono::milliseconds(500)) {
        bool progress = false;
        for (std::size_t i = 0; i < clients.size(); ++i) {
            const std::size_t want = std::min(kChunk, body.size() - sent[i]);
            if (want == 0) continue;
            const ssize_t n = ::send(clients[i]->fd(), body.data() + sent[i], want, MSG_NOSIGNAL);
            if (n > 0) {
                sent[i] += static_cast<std::size_t>(n);
                total += static_cast<std::size_t>(n);
                progress = true;
            }
        }
        if (progress)
            idleSince = std::chrono::steady_clock::now();
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return total;
}

TEST(Bounds, UnfinishedRequestsOfOneUserAreNotBufferedAndOthersAreStillServed) {
    TestServer server;
    const std::string address = server.address();
    auto attacker = kstest::OtherUser::start([&](kstest::OtherUser::Keep& keep) {
        // 16 notifications announcing 60 MiB each, none ever finished.
        auto clients = connectMany(address, 16, keep);
        if (clients.empty()) return std::string("connect failed");
        const std::string head = requestWire("Notifier", "TRVX_NN_NOTIFY")
                                     .addString("udp:127.0.0.1:0")
                                     .addString("flood")
                                     .addString("")
                                     .addLong(60 * kMiB)
                                     .bytes();
        return std::to_string(pushUntilBlocked(clients, head, std::string(60 * kMiB, '\0')));
    });
    if (!attacker) GTEST_SKIP() << "needs root to run a second user";
    // The user's 64 MiB budget, a read of 64 KiB per connection, and what the
    // kernel's socket buffers hold; unbounded, all 960 MiB would go in.
    EXPECT_LT(std::stoul("0" + attacker->result()), 96 * kMiB) << "the daemon stopped reading the flood";

    auto bystander = kstest::OtherUser::start(
        [&](kstest::OtherUser::Keep&) { return echoWorks(address) ? "served" : "silent"; }, kstest::kOtherUid - 1);
    EXPECT_EQ(bystander->result(), "served") << "another user is not slowed by the flood";
    EXPECT_TRUE(echoWorks(address));
    attacker->finish();
    EXPECT_TRUE(echoWorks(address));
}

TEST(Bounds, AClientThatPipelinesAndNeverReadsIsNotBufferedAndIsClosedAtTheRequestLimit) {
    TestServer server([](ksd::DaemonOptions& o) { o.server.requestTimeout = std::chrono::seconds(1); });
    std::string many;
    const std::string status = requestWire("KsdOperator", "KSD_OP_QUERY").addString("status");
    for (int i = 0; i < 20000; ++i) many += status;
    auto greedy = std::make_shared<WireClient>();
    ASSERT_TRUE(greedy->connect(server.address()));
    std::vector<std::shared_ptr<WireClient>> one{greedy};
    const std::size_t pushed = pushUntilBlocked(one, many.substr(0, 1), std::string_view(many).substr(1));
    EXPECT_LT(pushed, many.size() - 1) << "the daemon stopped reading ahead";
    // Others are served meanwhile, and the greedy client is closed once its replies wait too long.
    EXPECT_TRUE(echoWorks(server.address()));
    const auto connections = [&] { return server.thread.onLoop([&] { return server.daemon().connectionCount(); }); };
    EXPECT_TRUE(waitUntil([&] { return connections() == 0; }, std::chrono::seconds(30)));
    EXPECT_TRUE(greedy->waitPeerClosed(10000));
}

}  // namespace
