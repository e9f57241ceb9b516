// Start and stop of libksintf, and the event-name builders of the families.

#include <cstdio>

#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "ModuleData.h"
#include "OrvoLibraryConnection.h"
#include "OrvoLogging.h"
#include "OrvoProtocol.h"

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

OrvoString TaskSchedulerEventName(int hTask) {
    OrvoString sName(OrvoNet::Protocol::kTaskEventPrefix);
    char szHandle[20];
    std::snprintf(szHandle, sizeof(szHandle), "%d", hTask);
    sName.append(szHandle);
    sName.append("$");
    return sName;
}

OrvoString ResourceArbitrationEventName(const char* pszResourceName) {
    OrvoString sName(OrvoNet::Protocol::kLockEventPrefix);
    // Through OrvoString so that a null name raises the standard logic error.
    sName.append(OrvoString(pszResourceName));
    sName.append("$");
    return sName;
}

OrvoString JobStatusEventName(const char* pszJobName) {
    OrvoString sName(OrvoNet::Protocol::kJobEventPrefix);
    sName.append(OrvoString(pszJobName));
    sName.append("$");
    return sName;
}

}  // namespace KSInterface
