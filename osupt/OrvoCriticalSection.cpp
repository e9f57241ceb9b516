// Recursive lock and its scoped holder.

#include "OrvoCriticalSection.h"

namespace OrvoSupport {

OrvoCriticalSectionObject::OrvoCriticalSectionObject() = default;

OrvoCriticalSectionObject::~OrvoCriticalSectionObject() = default;

void OrvoCriticalSectionObject::lock() { m_mutex.lock(); }

void OrvoCriticalSectionObject::unlock() { m_mutex.unlock(); }

bool OrvoCriticalSectionObject::tryLock() { return m_mutex.try_lock(); }

OrvoCriticalSection::OrvoCriticalSection(OrvoCriticalSectionObject& cs) : m_cs(cs), m_bLocked(false) { lock(); }

OrvoCriticalSection::~OrvoCriticalSection() { unlock(); }

// The flag keeps the holder's own lock depth at one: lock() twice or unlock()
// twice through the same holder neither nests nor gives back someone else's hold.
void OrvoCriticalSection::lock() {
    if (m_bLocked) return;
    m_cs.lock();
    m_bLocked = true;
}

void OrvoCriticalSection::unlock() {
    if (!m_bLocked) return;
    m_bLocked = false;
    m_cs.unlock();
}

}  // namespace OrvoSupport
