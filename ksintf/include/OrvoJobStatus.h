#ifndef ORVO_JOB_STATUS_H
#define ORVO_JOB_STATUS_H

/* Job status client: create, find, map, update, cancel and delete jobs in the
   daemon's "JobStatus" service, and be told of a job's events.
   Every job call is one request and returns the daemon's answer narrowed to
   32 bits, or minus the errno of a failed exchange (-111 when the daemon is
   not running, -104 when it closed mid-reply, or the code of its error
   value). A null text raises the C++ standard logic error. */

#include "OrvoNotificationNetwork.h"

typedef struct {
    int iJobID;
    int iProgress;
} OrvoJSEJob;

/* In C++ the underlying type is fixed, so that any event code the daemon
   sends is a valid tOrvoJSEEvent (C enums take every int value anyway). */
#ifdef __cplusplus
#define ORVO_JSE_ENUM_BASE : int
#else
#define ORVO_JSE_ENUM_BASE
#endif

typedef enum ORVO_JSE_ENUM_BASE {
    TRVX_JSE_EXIT = -1,
    TRVX_JSE_COMPLETED = 0,
    TRVX_JSE_CANCELLED = 1,
    TRVX_JSE_CREATED = 2,
    TRVX_JSE_UPDATED = 3
} tOrvoJSEEvent;

#undef ORVO_JSE_ENUM_BASE

/* Called on the library's callback thread with the event's text (valid
   during the call only) and the event. */
typedef void (*PFJSENotificationCallback)(const char* pszJobName, tOrvoJSEEvent event);

#ifdef __cplusplus
extern "C" {
#endif

/* Creates a job; returns its id or a negative code. */
KSINTF_API int OrvoJSECreateJob(const char* pszJobDescription, const char* pszJobName);
/* Returns the id of the job of that name or a negative code. */
KSINTF_API int OrvoJSELookupJob(const char* pszJobName);
/* Ties the job to the iTaskCount application ids at aiAppID (read only,
   the caller's); returns the daemon's answer or a negative code. */
KSINTF_API int OrvoJSEMapJobIDToAppID(int iJobID, int iTaskCount, int* aiAppID);
/* Deletes the job; the daemon's answer or a negative code. */
KSINTF_API int OrvoJSEDeleteJob(int iJobID);
/* Records the job's progress; the daemon's answer or a negative code. */
KSINTF_API int OrvoJSESetJobProgress(int iJobID, int iProgress);
/* Returns the job's progress or a negative code. */
KSINTF_API int OrvoJSEGetJobProgress(int iJobID);
/* A bare round trip: answers the daemon's job count; the arguments are not touched. */
KSINTF_API int OrvoJSEGetAllJobProgress(int* piJobCount, OrvoJSEJob* aJobs);
/* Cancels the job; the daemon's answer or a negative code. */
KSINTF_API int OrvoJSECancelJob(int iJobID);
/* Calls pfNotificationCallback for each event of the named job. Returns a
   registration handle or the notification network's negative result. Not
   safe against a concurrent register or unregister of this family. */
KSINTF_API int OrvoJSERegisterForNotification(const char* pszJobName, PFJSENotificationCallback pfNotificationCallback);
/* Returns 0 once the daemon dropped the registration; otherwise its status
   or minus an errno, and the callback stays registered. */
KSINTF_API int OrvoJSEUnregisterForNotification(int hRegistration);

#ifdef __cplusplus
}
#endif

#endif
