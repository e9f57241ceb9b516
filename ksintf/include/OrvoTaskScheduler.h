#ifndef ORVO_TASK_SCHEDULER_H
#define ORVO_TASK_SCHEDULER_H

/* Task scheduler client: schedule programs and stored blobs with the daemon's
   "Scheduler" service, look tasks up, query and cancel them, and be told when
   a task's state changes. */

#include "OrvoNotificationNetwork.h"

/* In C++ the underlying types are fixed, so every value the daemon may
   answer (a negative code, say) is a valid tTaskState, and a frequency is an
   unsigned 4-byte value as the C compiler lays it out. */
#ifdef __cplusplus
#define ORVO_TS_ENUM_BASE(type) : type
#else
#define ORVO_TS_ENUM_BASE(type)
#endif

typedef enum ORVO_TS_ENUM_BASE(unsigned int) {
    cDaily = 0,
    cWeekly = 1,
    cMonthly = 2,
    cOneTime = 3,
    cBootTime = 4
} tTaskFrequency;

typedef enum ORVO_TS_ENUM_BASE(int) {
    cExit = -1,
    cInProgress = 0,
    cCompleted = 1,
    cWaiting = 2
} tTaskState;

#undef ORVO_TS_ENUM_BASE

typedef void (*PFTSNotificationCallback)(int hTask, tTaskState state);

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the new task's handle or a negative code; dates are checked against
   the local calendar unless the frequency is cBootTime. */
KSINTF_API int OrvoTSScheduleTask(const char* pszTaskName, const char* pszAppName, const char* pszAppWorkingPath,
                                  const char* pszParameterString, tTaskFrequency frequency, int nMonth, int nDay,
                                  int nYear, int nHour, int nMinute, int nSecond, const char* pszLogFileName);
KSINTF_API int OrvoTSScheduledTaskLookup(const char* pszTaskName);
KSINTF_API int OrvoTSCancelTask(int hTask);
KSINTF_API tTaskState OrvoTSTaskState(int hTask);
KSINTF_API int OrvoTSExitCode(int hTask);
/* *pnTimeSize: capacity on entry, length of the copied text on return. */
KSINTF_API int OrvoTSExecutionInformation(int hTask, char* pszDateTime, int* pnTimeSize);
/* *pnBufLength: capacity on entry, needed size (text plus its zero) on return;
   -12 when the buffer is too small, -14 for a null pointer or negative capacity. */
KSINTF_API int OrvoTSListAllExecTasks(int* pnBufLength, char* pBuf);
KSINTF_API int OrvoTSListAllBlobTasks(int* pnBufLength, char* pBuf);
KSINTF_API int OrvoTSScheduleBlobTask(const char* pszTaskName, int nBlobLength, const char* pBlob,
                                      tTaskFrequency frequency, int nGmtMonth, int nGmtDay, int nGmtYear,
                                      int nGmtHour, int nGmtMinute, int nGmtSecond);
KSINTF_API int OrvoTSScheduledTaskGetNextTime(int hTaskHandle, int* pnBufLength, char* pBuf, int* tFrequency);
/* A blob has no terminating zero: *pnBufLength returns its exact length. */
KSINTF_API int OrvoTSRetrieveBlobTask(int hTaskHandle, int* pnBufLength, char* pBuf);

/* Returns a notification network handle, or -9 when the task's state is negative. */
KSINTF_API int OrvoTSRegisterForNotification(int hTask, PFTSNotificationCallback pfNotificationCallback);
KSINTF_API int OrvoTSUnregisterForNotification(int hRegHandle);

#ifdef __cplusplus
}

static_assert(sizeof(tTaskFrequency) == 4 && sizeof(tTaskState) == 4, "the enumerations travel as 4-byte values");

namespace KSInterface {

// The current year of the local calendar.
KSINTF_API int GetYear();
// pastCheck false: nDay fits month nMon of year nYr (Gregorian leap rule).
// pastCheck true: the date is today or later (the time of day plays no part).
KSINTF_API bool Validate(int nDay, int nMon, int nYr, bool pastCheck);

}  // namespace KSInterface

#endif

#endif
