// The Arbiter's rules with a fake responder per request, a recording event
// publisher and a process monitor that only records; timers run on a real
// io_context. Holders that end are released end to end (LockEndToEnd).
#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <cerrno>

#include "service_test_fakes.h"
#include "services/arbiter/arbiter_service.h"

namespace {

using namespace ksdtest;
using Events = std::vector<PublishedEvent>;

constexpr uid_t kAlice = 1000;
constexpr uid_t kBob = 1001;

class Arbiter : public ::testing::Test {
protected:
    Arbiter() {
        ksd::ArbiterLimits l;
        l.maxNameLength = 16, l.maxLocksPerUser = 3, l.listPageBytes = 1;  // one lock per listing page
        arbiter_ = std::make_unique<ksd::ArbiterService>(io_, events_, l, std::make_unique<FakeMonitor>(watched_));
    }
    std::shared_ptr<FakeResponder> lock(const std::string& name, std::int64_t ms, const ksd::PeerInfo& peer) {
        return ksdtest::handle(*arbiter_, "TRVX_RA_LOCK", {str(name), lng(ms)}, peer);
    }
    std::int64_t unlock(std::int64_t handle, const ksd::PeerInfo& peer) {
        const auto responder = ksdtest::handle(*arbiter_, "TRVX_RA_UNLOCK", {lng(handle)}, peer);
        EXPECT_TRUE(responder->value()) << "unlock always answers one long";
        return responder->value().value_or(-9999);
    }
    static PublishedEvent ev(const std::string& name, std::int32_t code) {
        return {"OrvoRAEvent:" + name + "$", name, code};
    }

    asio::io_context io_;
    RecordingPublisher events_;
    std::shared_ptr<FakeMonitor::Watched> watched_ = std::make_shared<FakeMonitor::Watched>();
    std::unique_ptr<ksd::ArbiterService> arbiter_;
};

TEST_F(Arbiter, GrantsFreeResourcesAtOnceNeverReusesHandlesAndTimesOutWaiters) {
    ASSERT_EQ(lock("disk0", -1, unixPeer(10, kAlice))->value(), 1);
    ASSERT_EQ(lock("printer", 0, unixPeer(11, kBob))->value(), 2);
    EXPECT_EQ(unlock(2, unixPeer(11, kBob)), 0);
    for (std::int64_t gone : {2, 77, -1}) EXPECT_EQ(unlock(gone, unixPeer(11, kBob)), -ENOENT) << gone;
    EXPECT_EQ(lock("printer", 0, unixPeer(11, kBob))->value(), 3);

    EXPECT_EQ(lock("disk0", 0, unixPeer(11, kBob))->value(), -ETIMEDOUT) << "0 ms tries once";
    auto timed = lock("disk0", 50, unixPeer(11, kBob));
    EXPECT_FALSE(timed->answered()) << "a timed waiter is answered by its timer";
    // Milliseconds, not seconds: the bound is generous but far below 50 s.
    const auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!timed->answered() && io_.run_one_until(bound) > 0) continue;
    EXPECT_EQ(timed->value(), -ETIMEDOUT);
    EXPECT_EQ(arbiter_->waiting(), 0u) << "a timed-out waiter leaves the queue";
    EXPECT_EQ(events_.events, (Events{ev("disk0", 1), ev("printer", 1), ev("printer", 0), ev("printer", 1)}));
}

TEST_F(Arbiter, WaitersAreServedInArrivalOrderAndThoseWhoLeftAreSkipped) {
    ASSERT_EQ(lock("disk0", -1, unixPeer(10, kAlice))->value(), 1);
    auto second = lock("disk0", -1, unixPeer(11, kBob));
    auto gone = lock("disk0", -1, unixPeer(12, kBob));
    auto goneTimed = lock("disk0", 600000, unixPeer(13, kBob));
    auto third = lock("disk0", 600000, unixPeer(14, kAlice));
    auto quiet = lock("disk0", -1, unixPeer(15, kBob));
    auto fourth = lock("disk0", -5, unixPeer(16, kBob));  // any negative waits without limit
    gone->close();
    goneTimed->close();
    quiet->open = false;  // closed, its close handler not yet run when its turn comes
    events_.events.clear();

    EXPECT_EQ(unlock(1, unixPeer(10, kAlice)), 0);
    EXPECT_EQ(second->value(), 2);
    EXPECT_FALSE(third->answered());
    EXPECT_EQ(unlock(2, unixPeer(11, kBob)), 0);
    EXPECT_EQ(third->value(), 3) << "the handle goes past the waiters who left";
    EXPECT_FALSE(fourth->answered());
    EXPECT_EQ(unlock(3, unixPeer(14, kAlice)), 0);
    EXPECT_EQ(fourth->value(), 4);
    for (auto* r : {gone.get(), goneTimed.get(), quiet.get()}) EXPECT_EQ(r->answers, 0);
    EXPECT_EQ(watched_->count(12), 0u) << "no process is watched for a lock never granted";
    const auto freed = ev("disk0", 0), granted = ev("disk0", 1);
    EXPECT_EQ(events_.events, (Events{freed, granted, freed, granted, freed, granted})) << "release, then grant";
    io_.poll();
    EXPECT_EQ(third->answers, 1) << "the granted waiter's timer was cancelled";
}

TEST_F(Arbiter, OnlyTheHoldersUserOrRootMayUnlock) {
    ASSERT_EQ(lock("disk0", -1, unixPeer(10, kAlice))->value(), 1);
    EXPECT_EQ(unlock(1, unixPeer(11, kBob)), -EPERM);
    EXPECT_EQ(unlock(1, tcpPeer()), -EPERM) << "a TCP client of unknown owner is nobody's user";
    EXPECT_EQ(unlock(1, tcpPeerOf(kBob)), -EPERM);
    EXPECT_EQ(unlock(1, unixPeer(99, kAlice)), 0) << "another process of the same user may";
    ASSERT_EQ(lock("disk0", -1, unixPeer(10, kAlice))->value(), 2);
    EXPECT_EQ(unlock(2, unixPeer(12, 0)), 0) << "root may";
    EXPECT_EQ(lock("net", -1, tcpPeer())->failCode, EACCES) << "nor may it lock";
    ASSERT_EQ(lock("net", -1, tcpPeerOf(kAlice))->value(), 3);
    EXPECT_EQ(unlock(3, unixPeer(10, kBob)), -EPERM);
    EXPECT_EQ(unlock(3, unixPeer(10, kAlice)), 0) << "over TCP too a lock is its owner's";
}

TEST_F(Arbiter, LimitsAndBadNamesAreRefused) {
    EXPECT_EQ(lock(std::string(17, 'x'), 0, unixPeer(10, kAlice))->failCode, EMSGSIZE);
    EXPECT_EQ(lock("", 0, unixPeer(10, kAlice))->value(), -EINVAL);
    for (const std::string name : {"a", "b", "0123456789abcdef"}) EXPECT_GT(lock(name, 0, unixPeer(10, kAlice))->value(), 0);
    EXPECT_EQ(lock("d", 0, unixPeer(12, kAlice))->failCode, EDQUOT) << "three locks per user";
    EXPECT_EQ(lock("d", 0, unixPeer(13, kBob))->value(), 4) << "the limit is per user";
    for (const std::string name : {"r1", "r2", "r3", "r4"}) EXPECT_GT(lock(name, 0, unixPeer(14, 0))->value(), 0) << "root is not bound";
    ASSERT_EQ(unlock(1, unixPeer(10, kAlice)), 0);
    for (int i = 0; i < 10; ++i) {
        const auto handle = lock("c", 0, unixPeer(10, kAlice))->value();
        ASSERT_GT(handle.value_or(-1), 0) << "cycle " << i;
        ASSERT_EQ(unlock(*handle, unixPeer(10, kAlice)), 0);
    }
    EXPECT_GT(lock("c", 0, unixPeer(10, kAlice))->value(), 0) << "unlocking gives the quota back";
}

TEST_F(Arbiter, TheLockListComesInPagesByHandleEachHoldingALock) {
    const auto handles = [this](const std::string& query) {
        std::string out;
        const std::string json = arbiter_->query(query);
        for (auto at = json.find("\"handle\":"); at != std::string::npos; at = json.find("\"handle\":", at + 1))
            out += json.substr(at + 9, json.find(',', at) - at - 9) + " ";
        return json.empty() ? "<unknown>" : out;
    };
    ASSERT_EQ(lock("b", 0, unixPeer(10, kAlice))->value(), 1);
    ASSERT_EQ(lock("a", 0, unixPeer(11, kBob))->value(), 2);
    ASSERT_EQ(lock("c", 0, tcpPeerOf(kBob))->value(), 3);
    auto waiter = lock("a", -1, unixPeer(12, kAlice));
    EXPECT_EQ(handles("locks") + "| " + handles("locks>1") + "| " + handles("locks>2") + "| " + handles("locks>3"),
              "1 | 2 | 3 | ");
    EXPECT_NE(arbiter_->query("locks>1").find("\"waiters\":1"), std::string::npos);
    ASSERT_EQ(unlock(2, unixPeer(11, kBob)), 0);
    EXPECT_EQ(handles("locks>1") + "| " + handles("locks>3") + "| " + handles("locks>4"), "3 | 4 | ")
        << "a freed handle leaves its page, the hand-over joins at the end";
}

TEST_F(Arbiter, DestroyedWithWaitersAndTimersPendingTouchesNothingAfterwards) {
    ASSERT_EQ(lock("disk0", -1, unixPeer(10, kAlice))->value(), 1);
    auto timed = lock("disk0", 1, unixPeer(11, kBob));
    auto open = lock("disk0", -1, unixPeer(12, kBob));
    arbiter_.reset();
    io_.run();      // the aborted timer's handler runs after the service is gone
    open->close();  // and so does a late close handler
    EXPECT_FALSE(timed->answered() || open->answered());
}

}  // namespace
