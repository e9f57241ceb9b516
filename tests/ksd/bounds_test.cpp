// What one client or user can make ksd hold: the budget of bytes for unfinished
// requests and the rate of refusal log lines on their own, then a running ksd
// tried as the attacker would, with real sockets and a second uid.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ksd_process.h"
#include "other_user.h"
#include "server/pending_budget.h"
#include "server/refusal_log.h"
#include "wait_until.h"

namespace {

using kstest::KsdProcess;
using kstest::OtherUser;
using kstest::WireClient;

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

using kstest::requestWire;

std::string statusQuery() { return requestWire("KsdOperator", "KSD_OP_QUERY").addString("status").bytes(); }

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
    KsdProcess ksd;
    ASSERT_TRUE(ksd.start());
    const std::string address = ksd.connType();
    auto attacker = OtherUser::start([&](OtherUser::Keep& keep) {
        // 16 notifications announcing 60 MiB each, none ever finished.
        std::vector<std::shared_ptr<WireClient>> clients;
        for (int i = 0; i < 16; ++i) {
            clients.push_back(std::make_shared<WireClient>());
            if (!clients.back()->connect(address)) return std::string("connect failed");
            keep.push_back(clients.back());
        }
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

    auto bystander = OtherUser::start(
        [&](OtherUser::Keep&) { return kstest::operatorQuery(address, "status").empty() ? "silent" : "served"; },
        kstest::kOtherUid - 1);
    EXPECT_EQ(bystander->result(), "served") << "another user is not slowed by the flood";
    EXPECT_FALSE(kstest::operatorQuery(address, "status").empty());
    attacker->finish();
    EXPECT_FALSE(kstest::operatorQuery(address, "status").empty());
}

TEST(Bounds, AClientThatPipelinesAndNeverReadsIsNotBufferedAndIsClosedAtTheRequestLimit) {
    KsdProcess ksd;
    ASSERT_TRUE(ksd.start({"--request-timeout", "1000"}));
    const std::string address = ksd.connType();

    std::string many;
    for (int i = 0; i < 20000; ++i) many += statusQuery();
    auto greedy = std::make_shared<WireClient>();
    ASSERT_TRUE(greedy->connect(address));
    std::vector<std::shared_ptr<WireClient>> one{greedy};
    const std::size_t pushed = pushUntilBlocked(one, many.substr(0, 1), std::string_view(many).substr(1));
    EXPECT_LT(pushed, many.size() - 1) << "the daemon stopped reading ahead";
    // Others are served meanwhile, and the greedy client is closed once its replies wait too long.
    const auto connections = [&] { return kstest::operatorQuery(address, "status").find("\"connections\":0"); };
    EXPECT_TRUE(kstest::waitUntil([&] { return connections() != std::string::npos; }, std::chrono::seconds(30)));
    EXPECT_TRUE(greedy->waitPeerClosed(10000));
}

}  // namespace
