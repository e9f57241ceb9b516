/* The four public headers compile as C and their entry points link and run
   from a C program. No daemon listens on the pipe chosen here, so every call
   that reaches for one must fail with a negative code. Exit status 0 = pass. */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "OrvoJobStatus.h"
#include "OrvoNotificationNetwork.h"
#include "OrvoResourceArbitration.h"
#include "OrvoTaskScheduler.h"

static int g_nFailures = 0;

static void check(int bOk, const char* pszWhat, long nValue) {
    printf("%s %s (%ld)\n", bOk ? "ok  " : "FAIL", pszWhat, nValue);
    if (!bOk) ++g_nFailures;
}

int main(void) {
    char szConn[96];
    snprintf(szConn, sizeof(szConn), "pipe:kstest-c-%ld-nobody", (long)getpid());
    setenv("KSINTF_CONN_TYPE", szConn, 1);

    check(sizeof(tTaskFrequency) == 4 && sizeof(tTaskState) == 4, "4-byte task enumerations", 0);
    check(cExit == -1 && cBootTime == 4, "enumerator values", (long)cExit);

    int nResult = OrvoNNUnregisterForNotification(1);
    check(nResult < 0, "OrvoNNUnregisterForNotification", nResult);
    nResult = OrvoTSCancelTask(1);
    check(nResult < 0, "OrvoTSCancelTask", nResult);
    long nLock = OrvoRAResourceLock("c-test", 0);
    check(nLock < 0, "OrvoRAResourceLock", nLock);
    nResult = OrvoJSELookupJob("c-test");
    check(nResult < 0, "OrvoJSELookupJob", nResult);
    /* Refused before any connection. */
    nResult = OrvoTSListAllExecTasks(NULL, NULL);
    check(nResult == -14, "OrvoTSListAllExecTasks(NULL, NULL)", nResult);

    return g_nFailures == 0 ? 0 : 1;
}
