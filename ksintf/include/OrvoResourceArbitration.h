#ifndef ORVO_RESOURCE_ARBITRATION_H
#define ORVO_RESOURCE_ARBITRATION_H

/* Named locks held by the daemon's "Arbiter" service, and lock events.
   Negative results are minus the errno of a failed exchange (-111 when the
   daemon is not running, -110 ETIMEDOUT, ...) or the daemon's own refusal. */

#include "OrvoNotificationNetwork.h"

/* Called on the library's callback thread with the resource name (the
   event's text, valid during the call only) and the lock code. */
typedef void (*PFRANotificationCallback)(const char* pszResourceName, int nLockCode);

#ifdef __cplusplus
extern "C" {
#endif

/* Takes the named lock, waiting up to nMilliSeconds in the daemon. Returns
   the lock's handle (fits in 32 bits), or negative: the daemon's refusal
   (-110 when the wait ran out) or minus an errno. */
KSINTF_API long OrvoRAResourceLock(const char* pszResourceName, int nMilliSeconds);
/* Gives the lock back. Returns the daemon's answer (0 or more is success)
   or minus an errno. */
KSINTF_API int OrvoRAResourceUnlock(long hResourceLock);
/* Calls pfNotificationCallback for each lock event of the resource. Returns
   a registration handle, or the notification network's negative result
   (see OrvoNNRegisterForNotification). Not safe against a concurrent
   register or unregister of this family. */
KSINTF_API int OrvoRARegisterForNotification(const char* pszResourceName,
                                             PFRANotificationCallback pfNotificationCallback);
/* Returns 0 once the daemon dropped the registration; otherwise its status
   or minus an errno, and the callback stays registered. */
KSINTF_API int OrvoRAUnregisterForNotification(int hRegistration);

#ifdef __cplusplus
}
#endif

#endif
