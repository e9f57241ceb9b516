// The mutex, wake-up and sentinel behind the producer/consumer template.

#include "OrvoProducerConsumer.h"

namespace OrvoSupport {

OrvoBaseProducerConsumer::OrvoBaseProducerConsumer(OrvoBaseSynchronizedQueue& queue)
    : m_baseQueue(queue), m_bSentinel(false) {}

OrvoBaseProducerConsumer::~OrvoBaseProducerConsumer() = default;

void OrvoBaseProducerConsumer::lockSyncMutex() { m_syncMutex.lock(); }

void OrvoBaseProducerConsumer::unlockSyncMutex() { m_syncMutex.unlock(); }

// Wakes every waiter: each re-tests its condition, so an extra wake-up costs
// a loop turn while a missed one would hang a consumer.
void OrvoBaseProducerConsumer::setSyncEvent() { m_syncEvent.notify_all(); }

void OrvoBaseProducerConsumer::waitForSyncEvent() {
    // The caller holds the mutex through lockSyncMutex(): adopt it for the
    // wait and hand it back still held.
    std::unique_lock<std::mutex> hold(m_syncMutex, std::adopt_lock);
    m_syncEvent.wait(hold);
    hold.release();
}

void OrvoBaseProducerConsumer::produceSentinel(bool bSentinel) {
    std::lock_guard<std::mutex> hold(m_syncMutex);
    m_bSentinel = bSentinel;
    m_syncEvent.notify_all();
}

}  // namespace OrvoSupport
