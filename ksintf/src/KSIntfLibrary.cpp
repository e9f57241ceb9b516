// The process-wide library object and the shared connection it owns.

#include "KSIntfLibrary.h"

#include <mutex>

#include "OrvoLibraryConnection.h"
#include "OrvoLogging.h"

namespace KSInterface {

namespace {

// Constant-initialised and trivially destroyed, so it is usable from the
// module's detach at unload whatever the order of static destruction.
std::mutex g_creationMutex;

}  // namespace

std::atomic<KSIntfLibrary*> KSIntfLibrary::m_pThis{nullptr};
OrvoLibraryConnection* KSIntfLibrary::m_pLibraryConnection = nullptr;

KSIntfLibrary::KSIntfLibrary() : OrvoNet::OrvoLibraryCallbackSink("KSIntfLibrary") {}

KSIntfLibrary::~KSIntfLibrary() {
    // The listener thread must be gone before this object stops being a
    // KSIntfLibrary; the base would stop it only after that.
    stop();
}

KSIntfLibrary& KSIntfLibrary::getInstance() {
    // Threads that register their first callbacks at once must all get the
    // same object: one creates it under the lock, the others see it.
    KSIntfLibrary* pThis = m_pThis.load(std::memory_order_acquire);
    if (pThis != nullptr) return *pThis;
    std::lock_guard<std::mutex> lock(g_creationMutex);
    pThis = m_pThis.load(std::memory_order_relaxed);
    if (pThis == nullptr) {
        pThis = new KSIntfLibrary();
        m_pThis.store(pThis, std::memory_order_release);
        ORVO_LOG(9, "KSIntfLibrary::getInstance: creating instance=" << static_cast<const void*>(pThis));
    }
    return *pThis;
}

void KSIntfLibrary::deleteInstance() {
    std::lock_guard<std::mutex> lock(g_creationMutex);
    KSIntfLibrary* pThis = m_pThis.exchange(nullptr);
    if (pThis != nullptr) {
        ORVO_LOG(9, "KSIntfLibrary::deleteInstance: destroying instance=" << static_cast<const void*>(pThis));
        delete pThis;
    }
}

OrvoLibraryConnection& KSIntfLibrary::getSharedLibraryConnection() {
    std::lock_guard<std::mutex> lock(g_creationMutex);
    if (m_pLibraryConnection == nullptr) {
        // A constructor that throws (daemon unreachable) leaves the pointer
        // null, so the next caller tries again.
        m_pLibraryConnection = new OrvoLibraryConnection();
        ORVO_LOG(9, "KSIntfLibrary::getSharedLibraryConnection: creating shared library connection="
                        << static_cast<const void*>(m_pLibraryConnection));
    }
    return *m_pLibraryConnection;
}

void KSIntfLibrary::deleteSharedLibraryConnection() {
    std::lock_guard<std::mutex> lock(g_creationMutex);
    if (m_pLibraryConnection != nullptr) {
        ORVO_LOG(9, "KSIntfLibrary::deleteSharedLibraryConnection: destroying shared library connection="
                        << static_cast<const void*>(m_pLibraryConnection));
        delete m_pLibraryConnection;
        m_pLibraryConnection = nullptr;
    }
}

}  // namespace KSInterface
