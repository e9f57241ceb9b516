#ifndef KSD_SERVICES_SERVICE_H
#define KSD_SERVICES_SERVICE_H

// The seam between ksd's request layer and its services. A service names the
// requests it serves, describes the fields each one carries (so the parser
// can decode them incrementally and never trust a length), and handles a
// whole request, answering now or later through its Responder.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/request.h"
#include "services/daemon_event.h"

namespace ksd {

// Daemon-wide publication of events on the notification network
// (protocol.md §5); the Notifier implements it, other services use it.
class EventPublisher {
public:
    virtual ~EventPublisher() = default;
    // Publishes `code` about `subject` (a task handle in decimal, a resource
    // or job name) under daemonEventName(family, subject) to every
    // subscriber, and under the family's aggregate name to those `audience`
    // admits. Sender "ksd"; text `subject`; payload one native-order 4-byte int.
    virtual void publishEvent(EventFamily family, const std::string& subject, std::int32_t code,
                              EventAudience audience) = 0;
};

// Read-only counters for `ksctl status`, as name/value pairs; a few are text.
struct StatusItem {
    std::string name;
    std::int64_t value;
    std::optional<std::string> text = std::nullopt;
};

class Service {
public:
    virtual ~Service() = default;
    virtual std::string_view name() const = 0;
    // The field plan of a request, or null when the service does not serve it (ENOSYS).
    virtual const FieldPlan* plan(std::string_view request) const = 0;
    // Called on the event loop with every field decoded; must not block.
    virtual void handle(Request& request) = 0;
    virtual std::vector<StatusItem> status() const { return {}; }
    // Status counters that cost a round trip elsewhere: true when the service
    // will hand them to `done` on the loop, added to the status then.
    virtual bool statusLater(std::function<void(std::vector<StatusItem>)> done) {
        (void)done;
        return false;
    }
    // Answers an operator's query (e.g. "jobs", "locks") as a JSON value, or
    // an empty string when this service does not know the query.
    virtual std::string query(std::string_view what) const {
        (void)what;
        return {};
    }
    // The same, for one asker: a service whose listing shows users' private
    // state narrows it to what the asker may see.
    virtual std::string queryFor(std::string_view what, const PeerInfo& asker) const {
        (void)asker;
        return query(what);
    }
    // A query too costly for the event loop: the service takes `responder`
    // and answers on the loop once the answer is built elsewhere. False when
    // it does not answer `what` this way (queryFor() is asked then).
    virtual bool answerLater(std::string_view what, const PeerInfo& asker,
                             const std::shared_ptr<Responder>& responder) {
        (void)what;
        (void)asker;
        (void)responder;
        return false;
    }
};

}  // namespace ksd

#endif
