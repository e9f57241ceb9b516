// The Notifier's parts on their own: the subscription table, callback
// address checks, a push channel's queue, and the service driven with
// requests from peers of chosen users.
#include <gtest/gtest.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <chrono>
#include <string>
#include <vector>

#include "push_sink.h"
#include "service_test_fakes.h"
#include "services/notifier/callback_address.h"
#include "services/notifier/notifier_service.h"
#include "services/notifier/push_channel.h"
#include "services/notifier/subscription_table.h"

namespace {

using ksd::AddressCheck;
using ksd::SubscriptionTable;
using Add = SubscriptionTable::AddResult;
using namespace ksdtest;

constexpr uid_t kAlice = 1000;
constexpr uid_t kBob = 1001;

class Notifier : public ::testing::Test {
protected:
    std::int64_t subscribe(const std::string& event, const std::string& address, std::int32_t id,
                           const ksd::PeerInfo& peer) {
        return handle(notifier_, "TRVX_NN_REGISTER", {str(event), str(address), num(id)}, peer)->outcome();
    }
    std::int64_t subscribe(const std::string& event, const std::string& address, std::int32_t id, uid_t uid) {
        return subscribe(event, address, id, unixPeer(100 + static_cast<pid_t>(uid), uid));
    }
    std::int64_t status(const std::string& name) { return statusOf(notifier_, name); }
    asio::io_context io_;
    ksd::NotifierService notifier_{io_};
};

TEST_F(Notifier, AUserListsOnlyItsOwnSubscriptionsRootAllATcpClientNoneInPages) {
    ASSERT_EQ(subscribe("alices", "pipe:a", 1, kAlice), 0);
    ASSERT_EQ(subscribe("bobs", "pipe:b", 1, kBob), 0);
    const std::string after1 = notifier_.query("subscriptions>1");
    EXPECT_TRUE(after1.find("alices") == std::string::npos && after1.find("bobs") != std::string::npos) << after1;
    EXPECT_EQ(notifier_.query("subscriptions>2"), "[]");
    const std::string alice = notifier_.queryFor("subscriptions", unixPeer(1, kAlice));
    EXPECT_NE(alice.find("alices"), std::string::npos) << alice;
    EXPECT_EQ(alice.find("pipe:b"), std::string::npos) << "Bob's address is not shown to Alice: " << alice;
    const std::string root = notifier_.queryFor("subscriptions", unixPeer(1, 0));
    EXPECT_TRUE(root.find("alices") != std::string::npos && root.find("bobs") != std::string::npos) << root;
    EXPECT_EQ(notifier_.queryFor("subscriptions", tcpPeer()), "[]");
}

TEST_F(Notifier, FramesForAnotherUsersSubscriptionNeverReachThisListener) {
    kstest::PushSink sink;  // the kernel vouches for its owner
    const uid_t me = ::getuid();
    const uid_t stranger = me == kAlice ? kBob : kAlice;
    ASSERT_EQ(subscribe("ev", sink.address(), 1, stranger), 0);
    ASSERT_EQ(subscribe("ev", sink.address(), 2, me), 0);
    EXPECT_EQ(notifier_.publish("s", "ev", "t", {}), 2u);
    const auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (status("subscriptions") == 2 && io_.run_one_until(bound) > 0) continue;
    const std::string left = notifier_.query("subscriptions");
    EXPECT_EQ(status("subscriptions"), 1) << left;
    EXPECT_NE(left.find("\"id\":2,"), std::string::npos) << "the listener's own user keeps its subscription";
}

TEST_F(Notifier, AFamilyNameCarriesEveryEventItsSubscriberMaySeeAndNothingWhenUnheard) {
    using ksd::EventAudience;
    using ksd::EventFamily;
    ASSERT_EQ(subscribe("OrvoTSEvent:7$", "pipe:seven", 1, kBob), 0);
    notifier_.publishEvent(EventFamily::Task, "7", 2, EventAudience::ownerAndRoot(kAlice));
    EXPECT_EQ(status("queued_notifications"), 1) << "a task's own name stays open to everyone";

    ASSERT_EQ(subscribe("OrvoTSEvent:*", "pipe:alice", 1, kAlice), 0);
    ASSERT_EQ(subscribe("OrvoTSEvent:*", "pipe:bob", 1, kBob), 0);
    ASSERT_EQ(subscribe("OrvoTSEvent:*", "pipe:root", 1, 0), 0);
    ASSERT_EQ(subscribe("OrvoJSEvent:*", "pipe:bob", 2, kBob), 0);
    ASSERT_EQ(subscribe("OrvoTSEvent:*", "socket::9", 1, tcpPeer()), kRefused + EACCES)
        << "pushes for nobody could land anywhere";

    const std::int64_t published = status("notifications");
    notifier_.publishEvent(EventFamily::Task, "7", 0, EventAudience::ownerAndRoot(kAlice));
    EXPECT_EQ(status("queued_notifications"), 1 + 3) << "task 7's name, Alice and root; not Bob, not TCP";
    notifier_.publishEvent(EventFamily::Task, "8", 0, EventAudience::ownerAndRoot(uid_t(-1)));
    EXPECT_EQ(status("queued_notifications"), 4 + 1) << "a TCP client's task: root";
    notifier_.publishEvent(EventFamily::Job, "j", 2, EventAudience::everyone());
    EXPECT_EQ(status("queued_notifications"), 5 + 1) << "Bob's job family subscription";
    notifier_.publishEvent(EventFamily::Lock, "r", 1, EventAudience::everyone());
    EXPECT_EQ(status("queued_notifications"), 6) << "nobody listens to locks";
    EXPECT_EQ(status("notifications"), published + 4) << "an event counts once, whoever hears it";
}

TEST(PushChannel, TheQueueIsBoundedByFramesBytesAndItsOwnersBudgetOverAllAddresses) {
    struct Owner final : ksd::PushChannelOwner {
        void channelFailed(ksd::PushChannel&, const std::string&) override {}
        void channelIdle(ksd::PushChannel&) override {}
        void subscriberRefused(ksd::PushChannel&, std::int32_t, uid_t) override {}
    } owner;
    asio::io_context io;
    constexpr std::size_t kFrame = ksd::kFrameHeaderSize + 1000;
    ksd::NotifierLimits limits;
    limits.maxQueuedFrames = 6;
    limits.maxQueuedBytes = 3 * kFrame + ksd::kFrameHeaderSize;
    const std::string text = "pipe:" + kstest::uniqueName("kstest-nobody");
    ksd::CallbackAddress address;
    ASSERT_EQ(ksd::parseCallbackAddress(text, address), AddressCheck::Ok);
    auto budget = std::make_shared<ksd::PushBudget>(2 * kFrame);
    std::vector<std::shared_ptr<ksd::PushChannel>> channels;
    const auto channel = [&] {
        return channels.emplace_back(std::make_shared<ksd::PushChannel>(io, text, address, limits, budget, owner));
    };
    auto rootQueue = channel();
    const auto payload = std::make_shared<const std::string>(1000, 'x');
    const auto empty = std::make_shared<const std::string>();
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(rootQueue->push(1, 0, payload)) << "root has no budget: " << i;
    EXPECT_FALSE(rootQueue->push(1, 0, payload)) << "a fourth frame would pass the byte limit";
    EXPECT_TRUE(rootQueue->push(1, 0, empty)) << "an empty one still fits";
    EXPECT_EQ(rootQueue->drops(), 1u);
    limits.maxQueuedBytes *= 2;
    EXPECT_TRUE(rootQueue->push(1, 0, empty) && rootQueue->push(1, 0, empty));
    EXPECT_FALSE(rootQueue->push(1, 0, empty)) << "not one frame over the bound";
    EXPECT_EQ(rootQueue->queuedFrames(), 6u);

    // Alice's two frames on one address spend her budget for every address; Bob's is his own.
    auto first = channel(), second = channel();
    EXPECT_TRUE(first->push(1, kAlice, payload) && first->push(2, kAlice, payload));
    EXPECT_FALSE(second->push(1, kAlice, payload));
    EXPECT_TRUE(second->push(2, kBob, payload));
    EXPECT_EQ(second->drops(), 1u);
    first->close();
    EXPECT_TRUE(second->push(1, kAlice, payload)) << "a closed queue gives its bytes back";
    for (auto& c : channels) {
        c->detach();
        c->close();
    }
}

TEST(SubscriptionTable, OwnersAreCountedApartAndRootIsNotBound) {
    SubscriptionTable t(1);
    EXPECT_EQ(t.add({"pipe:a", 1, 7}, "ev"), Add::Added);
    EXPECT_EQ(t.add({"pipe:a", 1, 8}, "ev"), Add::Added) << "the same address and id for another owner";
    EXPECT_EQ(t.add({"pipe:b", 2, 8}, "ev"), Add::OverLimit);
    EXPECT_EQ(t.add({"pipe:a", 1, 8}, "other"), Add::Replaced) << "its own key moves, whatever the limit";
    EXPECT_EQ(t.find({"pipe:a", 1, 7})->event, "ev");
    for (int id = 0; id < 3; ++id) EXPECT_EQ(t.add({"pipe:r", id, 0}, "ev"), Add::Added) << id;
    EXPECT_EQ(t.removeAddress("pipe:a"), 2u) << "an address goes with every owner's subscriptions";
    std::vector<std::int32_t> ids;
    t.forEachSubscriber("ev",
                        [&](const ksd::SubscriptionKey& k, const ksd::Subscription&) { ids.push_back(k.callbackId); });
    EXPECT_EQ(ids, (std::vector<std::int32_t>{0, 1, 2}));
}

TEST(CallbackAddress, AcceptsOnlyLocalAddresses) {
    const struct {
        AddressCheck want;
        std::vector<std::string> texts;
    } cases[] = {
        {AddressCheck::Ok,
         {"pipe:ksintf-cb-12-1", "pipe:", "pipe:/run/user/1000/sink.sock", "pipe:" + std::string(107, 'a'),
          "socket:127.0.0.1:4000", "socket:127.200.0.1:4000", "socket::4000", "socket:localhost:4000",
          "socket:[::1]:4000", "socket:::1:4000", "socket:::ffff:127.0.0.1:4000"}},
        {AddressCheck::NotLocal,
         {"socket:::ffff:10.0.0.1:4000", "socket:10.0.0.1:4000", "socket:0.0.0.0:4000", "socket:remote.example:4000"}},
        {AddressCheck::Malformed,
         {"pipe:" + std::string(108, 'a'), "socket:127.0.0.1:0", "socket:127.0.0.1:65536", "socket:127.0.0.1:12x",
          "socket:127.0.0.1:", "socket:4000", "udp:127.0.0.1:0", "PIPE:x", ""}},
    };
    for (const auto& c : cases) {
        for (const auto& text : c.texts) {
            ksd::CallbackAddress a;
            EXPECT_EQ(ksd::parseCallbackAddress(text, a), c.want) << text;
        }
    }
    ksd::CallbackAddress a;
    ASSERT_EQ(ksd::parseCallbackAddress("socket::4000", a), AddressCheck::Ok);
    EXPECT_EQ(a.host.to_string() + ":" + std::to_string(a.port), "127.0.0.1:4000");
}

}  // namespace
