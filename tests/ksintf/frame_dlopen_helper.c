/* Loads and unloads libksintf in a process of its own, for the module
   start/stop tests: frame_dlopen_helper <library> once|twice|init
     once   load, publish once (no daemon), unload
     twice  load twice, KSIntfFinitModuleData, unload twice
     init   load, KSIntfInitModuleData, KSIntfFinitModuleData, unload
   Prints "notify=<rc>" (once) and "unloaded=<1 when gone>"; the library logs
   to OSUPT_LOG_FILE. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "OrvoNotificationNetwork.h"

typedef int (*NotifyFn)(const char*, OrvoNNNotification*);
typedef void (*VoidFn)(void);

int main(int argc, char** argv) {
    void* h = argc == 3 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
    if (h == NULL) return 1;
    if (strcmp(argv[2], "once") == 0) {
        NotifyFn notify = (NotifyFn)dlsym(h, "OrvoNNNotify");
        char payload[1] = {0};
        OrvoNNNotification n = {"<x/>", payload, 0, NULL};
        printf("notify=%d\n", notify ? notify("frame.event", &n) : 1);
    } else {
        void* h2 = strcmp(argv[2], "twice") == 0 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
        VoidFn init = (VoidFn)dlsym(h, "KSIntfInitModuleData");
        VoidFn finit = (VoidFn)dlsym(h, "KSIntfFinitModuleData");
        if (!init || !finit) return 1;
        if (h2 == NULL) init();
        finit();
        if (h2 != NULL) dlclose(h2);
    }
    dlclose(h);
    h = dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD);
    printf("unloaded=%d\n", h == NULL);
    return 0;
}
