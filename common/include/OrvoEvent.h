#ifndef ORVO_EVENT_H
#define ORVO_EVENT_H

#include <condition_variable>
#include <mutex>

#include "OrvoExport.h"

namespace OrvoSupport {

// What an event hands out to a waiter that asked for a record of a signal.
struct OrvoNotification {
    long m_nSequence;
};

// A manual-reset event: set() wakes all waiters and stays signalled until reset().
class ORVO_SUPPORT_API OrvoEvent {
public:
    OrvoEvent();
    virtual ~OrvoEvent();

    virtual void set();
    virtual void reset();
    // Waits up to nMilliSeconds (negative: without limit); true when signalled.
    virtual bool wait(int nMilliSeconds);
    // An opaque identity of the event, stable for its life.
    virtual const void* getHandle() const;
    // A record of the current signal count; the caller frees it with destroyNotification.
    virtual OrvoNotification* createNotification();
    virtual void destroyNotification(OrvoNotification* pNotification);

private:
    OrvoEvent(const OrvoEvent&) = delete;
    OrvoEvent& operator=(const OrvoEvent&) = delete;
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_bSignalled;
    long m_nSequence;
};

}  // namespace OrvoSupport

#endif
