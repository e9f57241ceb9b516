// Start and stop of libksintf, the library singleton and the event-name
// builders of the families.

#include <cstdio>

#include "KSIntfLibrary.h"
#include "ModuleData.h"
#include "OrvoLibraryConnection.h"
#include "OrvoLogging.h"

using OrvoSupport::OrvoString;

// The one module object of the library. Its construction at load attaches
// the library, its destruction at unload detaches it; both are counted by
// ModuleData so that hosts driving entry()/exit() themselves do no double work.
class Module : public OrvoSupport::ModuleData {
public:
    explicit Module(bool bAutoInit) : ModuleData(bAutoInit) { autoAttach(); }
    ~Module() override { autoDetach(); }

    void attach() override;
    void detach() override;
};

void Module::attach() {
    KSIntfLibInitOrvoNNNotify();
    KSIntfLibInitOrvoJobStatus();
    KSIntfLibInitOrvoResourceArbitration();
}

void Module::detach() {
    ORVO_LOG(9, "ksintf::Module::detach: entering");
    // The shared connection goes first: deleting it ends a request still open on it.
    KSInterface::KSIntfLibrary::deleteSharedLibraryConnection();
    KSInterface::KSIntfLibrary::deleteInstance();
    KSIntfLibFinitOrvoResourceArbitration();
    KSIntfLibFinitOrvoJobStatus();
    KSIntfLibFinitOrvoNNNotify();
    ORVO_LOG(9, "ksintf::Module::detach: exiting");
}

Module g_ModuleData(true);

extern "C" KSINTF_API void KSIntfInitModuleData() {
    ORVO_LOG(9, "KSIntfInitModuleData: entering");
    OrvoSupport::ModuleData::entry();
    ORVO_LOG(9, "KSIntfInitModuleData: exiting");
}

extern "C" KSINTF_API void KSIntfFinitModuleData() {
    ORVO_LOG(9, "KSIntfFinitModuleData: entering");
    OrvoSupport::ModuleData::exit();
    ORVO_LOG(9, "KSIntfFinitModuleData: exiting");
}

namespace KSInterface {

KSIntfLibrary* KSIntfLibrary::m_pThis = nullptr;
OrvoLibraryConnection* KSIntfLibrary::m_pLibraryConnection = nullptr;

KSIntfLibrary::KSIntfLibrary() : OrvoNet::OrvoLibraryCallbackSink("KSIntfLibrary") {}

KSIntfLibrary::~KSIntfLibrary() {
    // The listener thread must be gone before this object stops being a
    // KSIntfLibrary; the base would stop it only after that.
    stop();
}

KSIntfLibrary& KSIntfLibrary::getInstance() {
    if (m_pThis == nullptr) {
        m_pThis = new KSIntfLibrary();
        ORVO_LOG(9, "KSIntfLibrary::getInstance: creating instance=" << static_cast<const void*>(m_pThis));
    }
    return *m_pThis;
}

void KSIntfLibrary::deleteInstance() {
    if (m_pThis != nullptr) {
        ORVO_LOG(9, "KSIntfLibrary::deleteInstance: destroying instance=" << static_cast<const void*>(m_pThis));
        delete m_pThis;
        m_pThis = nullptr;
    }
}

OrvoLibraryConnection& KSIntfLibrary::getSharedLibraryConnection() {
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
    if (m_pLibraryConnection != nullptr) {
        ORVO_LOG(9, "KSIntfLibrary::deleteSharedLibraryConnection: destroying shared library connection="
                        << static_cast<const void*>(m_pLibraryConnection));
        delete m_pLibraryConnection;
        m_pLibraryConnection = nullptr;
    }
}

OrvoString TaskSchedulerEventName(int hTask) {
    OrvoString sName("OrvoTSEvent:");
    char szHandle[20];
    std::snprintf(szHandle, sizeof(szHandle), "%d", hTask);
    sName.append(szHandle);
    sName.append("$");
    return sName;
}

OrvoString ResourceArbitrationEventName(const char* pszResourceName) {
    OrvoString sName("OrvoRAEvent:");
    // Through OrvoString so that a null name raises the standard logic error.
    sName.append(OrvoString(pszResourceName));
    sName.append("$");
    return sName;
}

OrvoString JobStatusEventName(const char* pszJobName) {
    OrvoString sName("OrvoJSEvent:");
    sName.append(OrvoString(pszJobName));
    sName.append("$");
    return sName;
}

}  // namespace KSInterface
