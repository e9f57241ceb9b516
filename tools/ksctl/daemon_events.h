#ifndef KSCTL_DAEMON_EVENTS_H
#define KSCTL_DAEMON_EVENTS_H

// The daemon's own events as `ksctl events` receives them, under one name per
// family ("OrvoJSEvent:*", ...): which names to subscribe to, and one line per event.

#include <optional>
#include <string>
#include <vector>

#include "inbox.h"

namespace ksctl {

struct EventFamilies {
    bool jobs = false;
    bool locks = false;
    bool tasks = false;
};

// The words for a job event's and a task state's code, as every command shows them.
const char* jobEventWord(int code);
const char* taskStateWord(int state);

// The aggregate event names of the families asked for; all three when none is.
std::vector<std::string> familyEventNames(EventFamilies families);

// One line: "job backup: created (2)", or with `json`
// {"kind":"job","name":"backup","code":2,"event":"created"} (a task has "handle", a number).
// Nothing for a notification that is not a daemon event of a known family.
std::optional<std::string> formatDaemonEvent(const Notification& n, bool json);

}  // namespace ksctl

#endif
