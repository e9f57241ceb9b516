#ifndef ORVO_TASK_SCHEDULER_H
#define ORVO_TASK_SCHEDULER_H

/* Task scheduler client: schedule programs and stored blobs with the daemon's
   "Scheduler" service, look tasks up, query and cancel them, and be told when
   a task's state changes.
   Results common to every call that reaches the daemon: its answer passed
   through unchanged, or minus the errno of a failed exchange (-111 when the
   daemon is not running, -104 when it closed mid-reply, or the code of its
   error value). Every buffer is the caller's. A null text where a name is
   required raises the C++ standard logic error. */

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

/* Called on the library's callback thread with the task and its new state. */
typedef void (*PFTSNotificationCallback)(int hTask, tTaskState state);

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the new task's handle or a negative code; unless the frequency is
   cBootTime the date is checked against the local calendar first: -1 month
   outside 1-12, -2 day outside 1-31, -4 year before this one, -3 day past
   the month's end, -5/-6/-7 hour, minute, second out of range, -8 a date
   before today. */
KSINTF_API int OrvoTSScheduleTask(const char* pszTaskName, const char* pszAppName, const char* pszAppWorkingPath,
                                  const char* pszParameterString, tTaskFrequency frequency, int nMonth, int nDay,
                                  int nYear, int nHour, int nMinute, int nSecond, const char* pszLogFileName);
/* Returns the handle of the task of that name or a negative code. */
KSINTF_API int OrvoTSScheduledTaskLookup(const char* pszTaskName);
/* Cancels the task; the daemon's answer or a negative code. */
KSINTF_API int OrvoTSCancelTask(int hTask);
/* The task's state, or a negative code (cExit included) for an unknown task
   or a failed exchange. */
KSINTF_API tTaskState OrvoTSTaskState(int hTask);
/* The program's exit code, or a negative code. */
KSINTF_API int OrvoTSExitCode(int hTask);
/* Copies the last execution's date and time into pszDateTime. *pnTimeSize:
   capacity on entry, length of the copied text on return (30 after a failed
   exchange, buffer untouched). -1 when the text does not fit. */
KSINTF_API int OrvoTSExecutionInformation(int hTask, char* pszDateTime, int* pnTimeSize);
/* Copy the list of program (Exec) or blob tasks, as text, into pBuf.
   *pnBufLength: capacity on entry, needed size (text plus its zero) on return;
   0 with the zero-terminated text, -12 when the buffer is too small (nothing
   copied: call again with the returned size), -14 for a null pointer or
   negative capacity, the daemon's non-zero status (length untouched), or a
   negative code. */
KSINTF_API int OrvoTSListAllExecTasks(int* pnBufLength, char* pBuf);
KSINTF_API int OrvoTSListAllBlobTasks(int* pnBufLength, char* pBuf);
/* Stores nBlobLength bytes of pBlob under a schedule (not date-checked).
   Returns the new task's handle, -14 for a null name or blob or a zero
   length, -13 when the blob did not go out whole, or a negative code. */
KSINTF_API int OrvoTSScheduleBlobTask(const char* pszTaskName, int nBlobLength, const char* pBlob,
                                      tTaskFrequency frequency, int nGmtMonth, int nGmtDay, int nGmtYear,
                                      int nGmtHour, int nGmtMinute, int nGmtSecond);
/* The next run's time as text, with the buffer rules of the listings; the
   frequency goes to *tFrequency only when the text fitted (result 0). */
KSINTF_API int OrvoTSScheduledTaskGetNextTime(int hTaskHandle, int* pnBufLength, char* pBuf, int* tFrequency);
/* Copies the stored blob into pBuf. A blob has no terminating zero:
   *pnBufLength returns its exact length. 0, -12 too small (nothing copied),
   -13 the blob did not arrive whole, -14 a null pointer or negative
   capacity, the daemon's non-zero status, or a negative code. */
KSINTF_API int OrvoTSRetrieveBlobTask(int hTaskHandle, int* pnBufLength, char* pBuf);

/* Returns a notification network handle, or -9 when the task's state is negative. */
KSINTF_API int OrvoTSRegisterForNotification(int hTask, PFTSNotificationCallback pfNotificationCallback);
/* Exactly OrvoNNUnregisterForNotification's result for the handle. */
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
