// The Java notification container without a JVM or a daemon: queues are put
// in the table with add() and filled through the notification callback, as
// the notification network would; unregistrations go to a fake daemon.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "OrvoLogging.h"
#include "fake_daemon.h"

using KSInterface::OrvoJavaNotification;
using KSInterface::OrvoJavaNotificationCallbackContainer;
using KSInterface::OrvoJavaNotificationCallbackQueue;
using KSInterface::OrvoJavaNotificationCallbackQueueSP;
using KSInterface::OrvoJavaNotificationSP;
using OrvoSupport::OrvoCriticalSection;
using OrvoSupport::OrvoLogging;

namespace {

std::atomic<int> g_nNextId{5000};

class JavaContainer : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_daemon.start()); }

    // A registration as regForJavaNotification makes it, without the network.
    int addRegistration(OrvoJavaNotificationCallbackQueueSP& spQueue) {
        spQueue = new OrvoJavaNotificationCallbackQueue();
        const int id = g_nNextId++;
        EXPECT_TRUE(m_container.add(id, spQueue));
        return id;
    }
    // What the callback thread does for a pushed event.
    static void deliver(OrvoJavaNotificationCallbackQueueSP& spQueue, const char* pszEvent, std::string sText,
                        std::string sBytes) {
        OrvoNNNotification record{};
        record.m_pszData = sText.c_str();
        record.m_pData = sBytes.data();
        record.m_nDataLength = static_cast<long>(sBytes.size());
        record.m_pContext = &spQueue;
        OrvoJavaNotificationCallbackContainer::JavaNotificationCallback(pszEvent, &record);
        // The queue must hold a copy: the network reuses its buffers.
        std::memset(sBytes.data(), 'Z', sBytes.size());
        std::memset(sText.data(), 'Z', sText.size());
    }
    // As the Java bindings call it: with the container's mutex held once.
    bool wait(int id, OrvoJavaNotificationSP& sp) {
        OrvoCriticalSection lock(m_container.mutex());
        return m_container.waitForJavaNotification(id, sp);
    }

    kstest::FakeDaemon m_daemon;
    kstest::ScopedEnv m_env{"KSINTF_CONN_TYPE", m_daemon.connType()};
    OrvoJavaNotificationCallbackContainer& m_container = OrvoJavaNotificationCallbackContainer::getInstance();
};

// A delivery comes out whole, binary bytes too (the queue's order: ObjectTest).
TEST_F(JavaContainer, DeliversDeepCopiesAndKeepsTheTableConsistent) {
    OrvoJavaNotificationCallbackQueueSP spQueue;
    const int id = addRegistration(spQueue);
    deliver(spQueue, "evt.one", "<a/>", std::string("\0\x01\xff", 3));
    OrvoJavaNotificationSP sp;
    ASSERT_TRUE(wait(id, sp));
    EXPECT_EQ("evt.one", sp->eventName());
    EXPECT_STREQ("<a/>", sp->notification().m_pszData);
    EXPECT_EQ(std::string("\0\x01\xff", 3),
              std::string(static_cast<const char*>(sp->notification().m_pData), sp->notification().m_nDataLength));
    // A second add keeps the first queue.
    OrvoJavaNotificationCallbackQueueSP spOther = new OrvoJavaNotificationCallbackQueue();
    EXPECT_FALSE(m_container.add(id, spOther));
    EXPECT_TRUE(m_container.lookup(id) == spQueue);
    // The wait held the mutex once and gave it back: another thread can take it.
    std::thread([&] {
        ASSERT_TRUE(m_container.mutex().tryLock());
        m_container.mutex().unlock();
    }).join();
    m_container.stopJavaWaitNotification(id);
}

// A family wait neither reads a short payload as code 0 nor ends on it; an unknown id answers at once.
TEST_F(JavaContainer, AFamilyWaitSkipsAPayloadTooShortForAnEventCode) {
    OrvoJavaNotificationCallbackQueueSP spQueue;
    const int id = addRegistration(spQueue);
    const int nCode = 3;
    deliver(spQueue, "OrvoJSEvent:j$", "j", std::string("\x01\x00", 2));
    deliver(spQueue, "OrvoJSEvent:j$", "j", std::string(reinterpret_cast<const char*>(&nCode), sizeof nCode));
    EXPECT_EQ(3, KSInterface::waitForJavaEventCode(id, "Job"));
    m_container.stopJavaWaitNotification(id);
    OrvoJavaNotificationSP sp;
    EXPECT_FALSE(wait(987654, sp));
}

TEST_F(JavaContainer, StopReleasesABlockedWaiterAndUnregistersOutsideTheLock) {
    OrvoJavaNotificationCallbackQueueSP spQueue;
    const int id = addRegistration(spQueue);
    std::promise<void> blocked;
    std::atomic<bool> bBlocked{false};
    std::atomic<int> nLockedDuringUnregister{-1};
    // The waiter's first look at its empty queue: from then on it sits in consume.
    OrvoLogging::getInstance().setLogLevel(9);
    OrvoLogging::getInstance().setSink([&](int, const OrvoSupport::OrvoString& sRecord) {
        if (sRecord.find("OrvoProducerConsumer::consume: checking queue") != std::string::npos &&
            !bBlocked.exchange(true))
            blocked.set_value();
    });

    std::promise<bool> result;
    std::thread waiter([&] {
        OrvoJavaNotificationSP sp;
        result.set_value(wait(id, sp));
    });
    blocked.get_future().wait();
    // From here the waiter sits in consume; stop must wake it. The daemon
    // sees whether the container stays locked while it is being unregistered
    // (the woken waiter may take the lock for a moment: only a lock that stays
    // held counts).
    m_daemon.expect({.fn = [&](const kstest::Request&) {
        bool bFree = false;
        for (int i = 0; i < 200 && !bFree; ++i) {
            bFree = m_container.mutex().tryLock();
            if (bFree)
                m_container.mutex().unlock();
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        nLockedDuringUnregister = bFree ? 0 : 1;
        return kstest::Wire().addInt(0).bytes();
    }});
    m_container.stopJavaWaitNotification(id);
    waiter.join();
    OrvoLogging::getInstance().setSink({});
    OrvoLogging::getInstance().setLogLevel(0);
    EXPECT_FALSE(result.get_future().get());
    EXPECT_EQ(0, nLockedDuringUnregister.load());
    EXPECT_TRUE(m_container.lookup(id) == OrvoJavaNotificationCallbackQueueSP());
    EXPECT_TRUE(
        m_daemon.requests().at(0).bytes.starts_with(kstest::requestWire("Notifier", "TRVX_NN_UNREGISTER").bytes()));
}

TEST_F(JavaContainer, ManyRegistrationsWaitAtOnceEachForItsOwn) {
    const int kWaiters = 8, kEach = 25;
    std::vector<OrvoJavaNotificationCallbackQueueSP> queues(kWaiters);
    std::vector<int> ids;
    for (auto& spQueue : queues) ids.push_back(addRegistration(spQueue));

    std::vector<std::vector<std::string>> received(kWaiters);
    std::atomic<int> nReceived{0};
    std::vector<std::thread> waiters;
    for (int w = 0; w < kWaiters; ++w) {
        waiters.emplace_back([&, w] {
            OrvoJavaNotificationSP sp;
            while (wait(ids[w], sp)) {
                received[w].push_back(sp->notification().m_pszData);
                ++nReceived;
            }
        });
    }
    // Two delivering threads, as callbacks and stops run beside the waits.
    auto producer = [&](int nFirst) {
        for (int i = 0; i < kEach; ++i)
            for (int w = nFirst; w < kWaiters; w += 2)
                deliver(queues[w], "evt", std::to_string(w) + ":" + std::to_string(i), "b");
    };
    std::thread p0(producer, 0), p1(producer, 1);
    p0.join();
    p1.join();
    // A wait that starts after its stop finds no queue, so stop only once
    // everything is handed out; each stop then releases a blocked waiter.
    while (nReceived < kWaiters * kEach) std::this_thread::yield();
    for (int id : ids) m_container.stopJavaWaitNotification(id);
    for (auto& t : waiters) t.join();

    for (int w = 0; w < kWaiters; ++w) {
        ASSERT_EQ(static_cast<std::size_t>(kEach), received[w].size()) << "waiter " << w;
        for (int i = 0; i < kEach; ++i) EXPECT_EQ(std::to_string(w) + ":" + std::to_string(i), received[w][i]);
    }
}

}  // namespace
