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
#endif

#endif
