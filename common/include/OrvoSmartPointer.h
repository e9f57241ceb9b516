#ifndef ORVO_SMART_POINTER_H
#define ORVO_SMART_POINTER_H

namespace OrvoSupport {

// Holder of one reference to an OrvoObjectBase-derived object. Not itself
// thread-safe: one smart pointer must not be changed by two threads at once.
template <class T>
class OrvoSmartPointer {
public:
    OrvoSmartPointer() noexcept : m_pObject(nullptr) {}

    OrvoSmartPointer(T* p) noexcept : m_pObject(p) {
        if (m_pObject) m_pObject->addRef();
    }

    OrvoSmartPointer(const OrvoSmartPointer<T>& s) noexcept : m_pObject(s.m_pObject) {
        if (m_pObject) m_pObject->addRef();
    }

    // The old object is released before the new one gains its reference;
    // the early return for the same object is what makes that order safe.
    OrvoSmartPointer<T>& operator=(const OrvoSmartPointer<T>& s) noexcept {
        if (this == &s || m_pObject == s.m_pObject) return *this;
        if (m_pObject) m_pObject->release();
        m_pObject = s.m_pObject;
        if (m_pObject) m_pObject->addRef();
        return *this;
    }

    OrvoSmartPointer<T>& operator=(T* p) noexcept {
        if (p == m_pObject) return *this;
        if (m_pObject) m_pObject->release();
        m_pObject = p;
        if (m_pObject) m_pObject->addRef();
        return *this;
    }

    ~OrvoSmartPointer() noexcept {
        if (m_pObject) m_pObject->release();
    }

    T* operator->() noexcept { return m_pObject; }
    const T* operator->() const noexcept { return m_pObject; }
    T& operator*() noexcept { return *m_pObject; }
    const T& operator*() const noexcept { return *m_pObject; }
    operator T*() const noexcept { return m_pObject; }

    int operator==(const OrvoSmartPointer<T>& s) const noexcept { return m_pObject == s.m_pObject ? 1 : 0; }

    // Smart pointers are deliberately unordered: tables key them by int.
    int operator<(const OrvoSmartPointer<T>&) const noexcept { return 0; }

    // Hands the held reference to the caller without releasing it.
    T* getOwnership() noexcept {
        T* p = m_pObject;
        m_pObject = nullptr;
        return p;
    }

private:
    T* m_pObject;
};

}  // namespace OrvoSupport

#endif
