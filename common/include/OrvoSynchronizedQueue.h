#ifndef ORVO_SYNCHRONIZED_QUEUE_H
#define ORVO_SYNCHRONIZED_QUEUE_H

#include <cstddef>
#include <deque>
#include <queue>

#include "OrvoCriticalSection.h"

namespace OrvoSupport {

// Owns the lock that guards a synchronized queue.
class ORVO_SUPPORT_API OrvoBaseSynchronizedQueue {
public:
    OrvoBaseSynchronizedQueue();
    virtual ~OrvoBaseSynchronizedQueue();
    OrvoCriticalSectionObject& queueLock() { return m_queueLock; }

private:
    OrvoBaseSynchronizedQueue(const OrvoBaseSynchronizedQueue&) = delete;
    OrvoBaseSynchronizedQueue& operator=(const OrvoBaseSynchronizedQueue&) = delete;
    OrvoCriticalSectionObject m_queueLock;
};

// FIFO whose clear() and popFront() hold the queue lock; the plain accessors
// are for callers that already hold it.
template <class T>
class OrvoSynchronizedQueue : public OrvoBaseSynchronizedQueue {
public:
    OrvoSynchronizedQueue() = default;
    ~OrvoSynchronizedQueue() override = default;

    virtual void clear() {
        OrvoCriticalSection lock(queueLock());
        while (!m_queue.empty()) m_queue.pop();
    }

    bool empty() const { return m_queue.empty(); }
    std::size_t size() const { return m_queue.size(); }
    T& front() { return m_queue.front(); }
    const T& front() const { return m_queue.front(); }
    void push(const T& element) { m_queue.push(element); }
    void pop() { m_queue.pop(); }

    T popFront() {
        OrvoCriticalSection lock(queueLock());
        T element = m_queue.front();
        m_queue.pop();
        return element;
    }

private:
    std::queue<T, std::deque<T>> m_queue;
};

}  // namespace OrvoSupport

#endif
