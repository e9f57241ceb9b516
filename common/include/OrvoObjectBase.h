#ifndef ORVO_OBJECT_BASE_H
#define ORVO_OBJECT_BASE_H

#include <atomic>
#include <typeinfo>

#include "OrvoString.h"

namespace OrvoSupport {

// Intrusive, thread-safe reference count. A new object starts unowned (count
// 0); every holder adds one and the last release deletes it.
class ORVO_SUPPORT_API OrvoObjectBase {
public:
    OrvoObjectBase();
    virtual ~OrvoObjectBase();

    virtual void addRef();
    virtual void release();
    virtual long refCount() const;

    virtual bool isA(const OrvoString& sClassName) const {
        return getClassName() == sClassName;
    }

    virtual OrvoString getClassName() const {
        const char* pszName = typeid(*this).name();
        // Names of unit-local types carry a leading '*'.
        if (*pszName == '*') ++pszName;
        return normalizeClassName(pszName);
    }

    // Turns a compiler type name into the plain class name: demangled,
    // without namespaces or template arguments ("KSInterface::Foo" -> "Foo").
    static OrvoString normalizeClassName(const OrvoString& sMangledName);

protected:
    OrvoObjectBase(const OrvoObjectBase&);
    OrvoObjectBase& operator=(const OrvoObjectBase&);

private:
    std::atomic<long> m_nRefCount;
};

}  // namespace OrvoSupport

#endif
