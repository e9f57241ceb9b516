#ifndef KSD_SERVICES_DAEMON_EVENT_H
#define KSD_SERVICES_DAEMON_EVENT_H

// The daemon's own events: their names, one family per service, and who may
// hear them under their family's aggregate name.

#include <sys/types.h>

#include <string>
#include <string_view>

namespace ksd {

enum class EventFamily { Task, Lock, Job };

// "OrvoTSEvent:<handle>$", "OrvoRAEvent:<resource>$", "OrvoJSEvent:<job>$":
// the names the client library's families subscribe to.
std::string daemonEventName(EventFamily family, std::string_view subject);

// "OrvoTSEvent:*", "OrvoRAEvent:*", "OrvoJSEvent:*": every event of a family.
// No subject can produce them (those names all end in '$'), and, carrying a
// reserved prefix, no client can publish them.
const std::string& aggregateEventName(EventFamily family);

// Who hears an event under its aggregate name: everyone, or only the owner
// of its subject and root. A TCP owner or subscriber has no uid: uid_t(-1)
// stands for "a TCP client" on both sides.
struct EventAudience {
    static EventAudience everyone() { return {}; }
    static EventAudience ownerAndRoot(uid_t owner) { return {false, owner}; }
    bool admits(uid_t subscriber) const { return all || subscriber == 0 || subscriber == owner; }

    bool all = true;
    uid_t owner = static_cast<uid_t>(-1);
};

}  // namespace ksd

#endif
