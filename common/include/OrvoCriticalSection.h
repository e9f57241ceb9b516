#ifndef ORVO_CRITICAL_SECTION_H
#define ORVO_CRITICAL_SECTION_H

#include <mutex>

#include "OrvoExport.h"

namespace OrvoSupport {

// A recursive mutex: the same thread may lock it again.
class ORVO_SUPPORT_API OrvoCriticalSectionObject {
public:
    OrvoCriticalSectionObject();
    virtual ~OrvoCriticalSectionObject();
    void lock();
    void unlock();
    bool tryLock();

private:
    OrvoCriticalSectionObject(const OrvoCriticalSectionObject&) = delete;
    OrvoCriticalSectionObject& operator=(const OrvoCriticalSectionObject&) = delete;
    std::recursive_mutex m_mutex;
};

// Scoped hold of a critical section: locked at construction, unlocked at
// destruction unless unlock() already gave it back.
class ORVO_SUPPORT_API OrvoCriticalSection {
public:
    explicit OrvoCriticalSection(OrvoCriticalSectionObject& cs);
    ~OrvoCriticalSection();
    void lock();
    void unlock();

private:
    OrvoCriticalSection(const OrvoCriticalSection&) = delete;
    OrvoCriticalSection& operator=(const OrvoCriticalSection&) = delete;
    OrvoCriticalSectionObject& m_cs;
    bool m_bLocked;
};

}  // namespace OrvoSupport

#endif
