#ifndef ORVO_JOB_STATUS_H
#define ORVO_JOB_STATUS_H

/* Job status client: create, find, map, update, cancel and delete jobs in the
   daemon's "JobStatus" service, and be told of a job's events. */

#include "OrvoNotificationNetwork.h"

typedef struct {
    int iJobID;
    int iProgress;
} OrvoJSEJob;

typedef enum {
    TRVX_JSE_EXIT = -1,
    TRVX_JSE_COMPLETED = 0,
    TRVX_JSE_CANCELLED = 1,
    TRVX_JSE_CREATED = 2,
    TRVX_JSE_UPDATED = 3
} tOrvoJSEEvent;

typedef void (*PFJSENotificationCallback)(const char* pszJobName, tOrvoJSEEvent event);

#ifdef __cplusplus
extern "C" {
#endif

KSINTF_API int OrvoJSECreateJob(const char* pszJobDescription, const char* pszJobName);
KSINTF_API int OrvoJSELookupJob(const char* pszJobName);
KSINTF_API int OrvoJSEMapJobIDToAppID(int iJobID, int iTaskCount, int* aiAppID);
KSINTF_API int OrvoJSEDeleteJob(int iJobID);
KSINTF_API int OrvoJSESetJobProgress(int iJobID, int iProgress);
KSINTF_API int OrvoJSEGetJobProgress(int iJobID);
/* A bare round trip: answers the daemon's job count; the arguments are not touched. */
KSINTF_API int OrvoJSEGetAllJobProgress(int* piJobCount, OrvoJSEJob* aJobs);
KSINTF_API int OrvoJSECancelJob(int iJobID);
KSINTF_API int OrvoJSERegisterForNotification(const char* pszJobName, PFJSENotificationCallback pfNotificationCallback);
KSINTF_API int OrvoJSEUnregisterForNotification(int hRegistration);

#ifdef __cplusplus
}
#endif

#endif
