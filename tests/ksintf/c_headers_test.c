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
#define CHECK(condition) ((condition) ? (void)0 : (void)(printf("FAIL %s\n", #condition), ++g_nFailures))

_Static_assert(sizeof(tTaskFrequency) == 4 && sizeof(tTaskState) == 4, "4-byte task enumerations");

int main(void) {
    char szConn[96];
    snprintf(szConn, sizeof(szConn), "pipe:kstest-c-%ld-nobody", (long)getpid());
    setenv("KSINTF_CONN_TYPE", szConn, 1);
    CHECK(cExit == -1 && cBootTime == 4);
    CHECK(OrvoNNUnregisterForNotification(1) < 0);
    CHECK(OrvoTSCancelTask(1) < 0);
    CHECK(OrvoRAResourceLock("c-test", 0) < 0);
    CHECK(OrvoJSELookupJob("c-test") < 0);
    CHECK(OrvoTSListAllExecTasks(NULL, NULL) == -14); /* refused before any connection */
    return g_nFailures == 0 ? 0 : 1;
}
