#ifndef KSCTL_LISTEN_LOOP_H
#define KSCTL_LISTEN_LOOP_H

// The loop of the commands that print notifications until stopped (subscribe,
// events): register, print one line per notification, say when ksd goes away
// and comes back, and unregister on SIGINT, SIGTERM or SIGHUP (exit 0).

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "inbox.h"

namespace ksctl {

struct ListenPlan {
    std::vector<std::string> events;
    // Registers Inbox::deliver for one event name: the handle, or a negative result.
    std::function<int(const std::string& event)> subscribe;
    // The line for a notification; nothing prints nothing (and does not count).
    std::function<std::optional<std::string>(const Notification&)> format;
    std::optional<long long> count;  // exit after this many lines
};

// Returns the exit code; a registration that fails is reported and undoes the others.
int listenUntilStopped(const ListenPlan& plan);

}  // namespace ksctl

#endif
