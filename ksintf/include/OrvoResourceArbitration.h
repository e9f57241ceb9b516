#ifndef ORVO_RESOURCE_ARBITRATION_H
#define ORVO_RESOURCE_ARBITRATION_H

/* Named locks held by the daemon's "Arbiter" service, and lock events. */

#include "OrvoNotificationNetwork.h"

/* Called with the resource name (the event's text) and the lock code. */
typedef void (*PFRANotificationCallback)(const char* pszResourceName, int nLockCode);

#ifdef __cplusplus
extern "C" {
#endif

/* A handle (fits in 32 bits), or negative on failure. */
KSINTF_API long OrvoRAResourceLock(const char* pszResourceName, int nMilliSeconds);
KSINTF_API int OrvoRAResourceUnlock(long hResourceLock);
KSINTF_API int OrvoRARegisterForNotification(const char* pszResourceName,
                                             PFRANotificationCallback pfNotificationCallback);
KSINTF_API int OrvoRAUnregisterForNotification(int hRegistration);

#ifdef __cplusplus
}

#include <map>

#include "OrvoObjectBase.h"
#include "OrvoSmartPointer.h"

// What a resource registration keeps alive: the caller's function.
class KSINTF_API RANotificationInfo : public OrvoSupport::OrvoObjectBase {
public:
    explicit RANotificationInfo(PFRANotificationCallback pfnCallback) : m_pfnCallback(pfnCallback) {}
    ~RANotificationInfo() override {}
    PFRANotificationCallback RACallback() const { return m_pfnCallback; }

private:
    PFRANotificationCallback m_pfnCallback;
};

typedef OrvoSupport::OrvoSmartPointer<RANotificationInfo> RANotificationInfoSP;
typedef std::map<int, RANotificationInfoSP> RANotificationInfoMap;

KSINTF_API RANotificationInfoMap* getRANotificationInfoByHandleMap();
// Adapter registered with the notification network for lock events.
KSINTF_API void OrvoRANotificationCallback(const char* pszEventName, OrvoNNNotification* pNotification);
#endif

#endif
