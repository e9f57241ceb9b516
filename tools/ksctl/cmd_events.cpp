// `ksctl events`: the daemon's own job, lock and task events as they happen, one line each.

#include <string>

#include "OrvoNotificationNetwork.h"
#include "commands.h"
#include "daemon_events.h"
#include "inbox.h"
#include "listen_loop.h"

// The library's registration without its reserved-prefix check: exported for
// its own families and tools, not declared in the installed headers. The
// family names carry the daemon's reserved prefix.
KSINTF_API int _OrvoNNRegisterForNotification(const char* pszEventName, PFNNNotificationCallback pfNotificationCallback,
                                              void* pContext);

namespace ksctl {

int runEvents(const GlobalOptions& options, const EventsArgs& args) {
    ListenPlan plan;
    plan.events = familyEventNames(EventFamilies{args.jobs, args.locks, args.tasks});
    plan.subscribe = [](const std::string& event) {
        return _OrvoNNRegisterForNotification(event.c_str(), &Inbox::deliver, &Inbox::instance());
    };
    plan.format = [json = options.json](const Notification& n) { return formatDaemonEvent(n, json); };
    plan.count = args.count;
    return listenUntilStopped(plan);
}

}  // namespace ksctl
