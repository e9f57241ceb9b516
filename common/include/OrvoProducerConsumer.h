#ifndef ORVO_PRODUCER_CONSUMER_H
#define ORVO_PRODUCER_CONSUMER_H

#include <condition_variable>
#include <mutex>

#include "OrvoLogging.h"
#include "OrvoSynchronizedQueue.h"

namespace OrvoSupport {

// The blocking hand-over around a synchronized queue: a synchronisation mutex,
// an event that wakes a waiting consumer, and the sentinel flag that tells it
// to give up once the queue is empty.
class ORVO_SUPPORT_API OrvoBaseProducerConsumer {
public:
    explicit OrvoBaseProducerConsumer(OrvoBaseSynchronizedQueue& queue);
    virtual ~OrvoBaseProducerConsumer();

    void lockSyncMutex();
    void unlockSyncMutex();
    // Both called with the synchronisation mutex held.
    void setSyncEvent();
    void waitForSyncEvent();
    // Sets the flag and wakes any waiting consumer.
    void produceSentinel(bool bSentinel);
    bool isSentinel() const { return m_bSentinel; }

protected:
    OrvoBaseSynchronizedQueue& baseQueue() { return m_baseQueue; }

private:
    OrvoBaseProducerConsumer(const OrvoBaseProducerConsumer&) = delete;
    OrvoBaseProducerConsumer& operator=(const OrvoBaseProducerConsumer&) = delete;

    OrvoBaseSynchronizedQueue& m_baseQueue;
    bool m_bSentinel;
    std::mutex m_syncMutex;
    std::condition_variable m_syncEvent;
};

template <class T>
class OrvoProducerConsumer : public OrvoBaseProducerConsumer {
public:
    OrvoProducerConsumer() : OrvoBaseProducerConsumer(m_queue) {}
    ~OrvoProducerConsumer() override = default;

    void produce(T& element) {
        ORVO_LOG(9, "OrvoProducerConsumer::produce: waiting for lock");
        lockSyncMutex();
        ORVO_LOG(9, "OrvoProducerConsumer::produce: adding element");
        {
            OrvoCriticalSection lock(m_queue.queueLock());
            m_queue.push(element);
        }
        setSyncEvent();
        unlockSyncMutex();
    }

    // Blocks until an element or the sentinel arrives. Queued elements win
    // over the sentinel; false (element untouched) only on an empty queue.
    bool consume(T& element) {
        lockSyncMutex();
        ORVO_LOG(9, "OrvoProducerConsumer::consume: checking queue");
        while (m_queue.empty() && !isSentinel()) waitForSyncEvent();
        ORVO_LOG(9, "OrvoProducerConsumer::consume: check completed");
        if (m_queue.empty()) {
            ORVO_LOG(9, "OrvoProducerConsumer::consume: found sentinel");
            unlockSyncMutex();
            return false;
        }
        ORVO_LOG(9, "OrvoProducerConsumer::consume: popping element");
        {
            T copy = m_queue.popFront();
            element = copy;
        }
        unlockSyncMutex();
        return true;
    }

    OrvoSynchronizedQueue<T>& queue() { return m_queue; }

private:
    OrvoProducerConsumer(const OrvoProducerConsumer&);
    OrvoProducerConsumer& operator=(const OrvoProducerConsumer&);

    OrvoSynchronizedQueue<T> m_queue;
};

}  // namespace OrvoSupport

#endif
