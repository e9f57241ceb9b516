#ifndef KSINTF_LIBRARY_H
#define KSINTF_LIBRARY_H

#include "OrvoExport.h"

#ifdef __cplusplus

#include "OrvoLibraryCallbackSink.h"

namespace KSInterface {

class OrvoLibraryConnection;

// The process-wide library object: the callback sink through which the
// daemon reaches every callback of every family, and the owner of the one
// shared connection. Both are created lazily and without a lock.
class KSINTF_API KSIntfLibrary : public OrvoNet::OrvoLibraryCallbackSink {
public:
    ~KSIntfLibrary() override;

    static KSIntfLibrary& getInstance();
    static void deleteInstance();
    // Throws OrvoException (leaving nothing behind) when the daemon cannot be reached.
    static OrvoLibraryConnection& getSharedLibraryConnection();
    static void deleteSharedLibraryConnection();

private:
    KSIntfLibrary();
    KSIntfLibrary(const KSIntfLibrary&);
    KSIntfLibrary& operator=(const KSIntfLibrary&);

    static KSIntfLibrary* m_pThis;
    static OrvoLibraryConnection* m_pLibraryConnection;
};

// Event names under which the daemon publishes the families' events:
// "OrvoTSEvent:<handle>$", "OrvoRAEvent:<resource>$", "OrvoJSEvent:<job>$".
// A null name raises the standard logic error.
KSINTF_API OrvoSupport::OrvoString TaskSchedulerEventName(int hTask);
KSINTF_API OrvoSupport::OrvoString ResourceArbitrationEventName(const char* pszResourceName);
KSINTF_API OrvoSupport::OrvoString JobStatusEventName(const char* pszJobName);

}  // namespace KSInterface

// Per-family start and stop, run by the module's attach and detach.
KSINTF_API void KSIntfLibInitOrvoNNNotify();
KSINTF_API void KSIntfLibFinitOrvoNNNotify();
KSINTF_API void KSIntfLibInitOrvoJobStatus();
KSINTF_API void KSIntfLibFinitOrvoJobStatus();
KSINTF_API void KSIntfLibInitOrvoResourceArbitration();
KSINTF_API void KSIntfLibFinitOrvoResourceArbitration();

extern "C" {
#endif

/* For hosts that start and stop modules themselves: attach/detach every
   registered module, counted, so only the first start and last stop work. */
KSINTF_API void KSIntfInitModuleData(void);
KSINTF_API void KSIntfFinitModuleData(void);

#ifdef __cplusplus
}
#endif

#endif
