#ifndef KSINTF_LIBRARY_H
#define KSINTF_LIBRARY_H

#include "OrvoExport.h"

#ifdef __cplusplus

#include <atomic>

#include "OrvoLibraryCallbackSink.h"

namespace KSInterface {

class OrvoLibraryConnection;

// The process-wide library object: the callback sink through which the
// daemon reaches every callback of every family (its thread runs them all),
// and the owner of the one shared connection that publications use.
class KSINTF_API KSIntfLibrary : public OrvoNet::OrvoLibraryCallbackSink {
public:
    ~KSIntfLibrary() override;

    // The singleton, created by the first caller; safe to call from any
    // thread. Valid until deleteInstance() (run by the module's detach).
    static KSIntfLibrary& getInstance();
    // Stops the sink thread and destroys the singleton; does nothing when
    // there is none.
    static void deleteInstance();
    // The shared connection, opened by the first caller. Throws OrvoException
    // (leaving nothing behind, so a later call retries) when the daemon cannot
    // be reached. Callers serialise their requests on it themselves.
    static OrvoLibraryConnection& getSharedLibraryConnection();
    // Closes and destroys the shared connection; nothing when there is none.
    static void deleteSharedLibraryConnection();

private:
    KSIntfLibrary();
    KSIntfLibrary(const KSIntfLibrary&);
    KSIntfLibrary& operator=(const KSIntfLibrary&);

    static std::atomic<KSIntfLibrary*> m_pThis;
    static OrvoLibraryConnection* m_pLibraryConnection;
};

// Event names under which the daemon publishes the families' events:
// "OrvoTSEvent:<handle>$", "OrvoRAEvent:<resource>$", "OrvoJSEvent:<job>$".
// A null name raises the standard logic error.
KSINTF_API OrvoSupport::OrvoString TaskSchedulerEventName(int hTask);
KSINTF_API OrvoSupport::OrvoString ResourceArbitrationEventName(const char* pszResourceName);
KSINTF_API OrvoSupport::OrvoString JobStatusEventName(const char* pszJobName);

}  // namespace KSInterface

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
