// Manual-reset event over a mutex and a condition variable.

#include "OrvoEvent.h"

#include <chrono>

namespace OrvoSupport {

OrvoEvent::OrvoEvent() : m_bSignalled(false), m_nSequence(0) {}

OrvoEvent::~OrvoEvent() = default;

void OrvoEvent::set() {
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_bSignalled = true;
        ++m_nSequence;
    }
    m_cond.notify_all();
}

void OrvoEvent::reset() {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bSignalled = false;
}

bool OrvoEvent::wait(int nMilliSeconds) {
    std::unique_lock<std::mutex> hold(m_mutex);
    if (nMilliSeconds < 0) {
        m_cond.wait(hold, [this] { return m_bSignalled; });
        return true;
    }
    return m_cond.wait_for(hold, std::chrono::milliseconds(nMilliSeconds), [this] { return m_bSignalled; });
}

const void* OrvoEvent::getHandle() const { return this; }

OrvoNotification* OrvoEvent::createNotification() {
    std::lock_guard<std::mutex> hold(m_mutex);
    return new OrvoNotification{m_nSequence};
}

void OrvoEvent::destroyNotification(OrvoNotification* pNotification) { delete pNotification; }

}  // namespace OrvoSupport
