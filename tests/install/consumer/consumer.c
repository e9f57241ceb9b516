/* A program built against an installed tree: it must compile with the
 * installed headers, link with the installed libraries, load them without
 * help from the environment and reach the installed ksd.
 * Usage: consumer create|lookup NAME; prints the job's id. */
#include <stdio.h>
#include <string.h>

#include "OrvoJobStatus.h"

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    int nId = strcmp(argv[1], "create") == 0 ? OrvoJSECreateJob("made by a consumer", argv[2])
                                             : OrvoJSELookupJob(argv[2]);
    printf("%d\n", nId);
    return nId > 0 ? 0 : 1;
}
