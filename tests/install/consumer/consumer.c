/* A program built against an installed tree: it must compile with the
 * installed headers, link with the installed libraries and load them. */
#include <stdio.h>

#include "OrvoJobStatus.h"

int main(void) {
    /* No daemon listens on the pipe the test names: the library must answer
     * with a negative code rather than crash. */
    int nId = OrvoJSELookupJob("consumer-check");
    printf("lookup: %d\n", nId);
    return nId < 0 ? 0 : 1;
}
