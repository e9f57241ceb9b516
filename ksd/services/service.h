#ifndef KSD_SERVICES_SERVICE_H
#define KSD_SERVICES_SERVICE_H

// The seam between ksd's request layer and its services. A service names the
// requests it serves, describes the fields each one carries (so the parser
// can decode them incrementally and never trust a length), and handles a
// whole request, answering now or later through its Responder.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "OrvoCodec.h"

namespace ksd {

using Value = OrvoNet::Codec::Value;

// Who sent a request. A TCP client has no identity (isUnix false).
struct PeerInfo {
    bool isUnix = false;
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::uint64_t connectionId = 0;  // unique per accepted connection
};

// The next field a request carries. Raw fields are `rawLength` untagged
// bytes, delivered as a Value with tag 0 and the bytes in `text`. Invalid
// aborts the request with `errorCode` (EPROTO, EMSGSIZE, ...).
enum class FieldKind { Short, Int, Long, Bool, String, Raw, Done, Invalid };
struct FieldSpec {
    FieldKind kind = FieldKind::Done;
    std::uint64_t rawLength = 0;
    int errorCode = 0;
};

// Asked again after each decoded field with the fields decoded so far.
using FieldPlan = std::function<FieldSpec(const std::vector<Value>& fieldsSoFar)>;

// The answer channel of one request. Exactly one of reply() or fail() takes
// effect; calls after that, or after the peer went away, do nothing.
class Responder {
public:
    virtual ~Responder() = default;
    // Sends the encoded reply fields followed by the trailer (short 0, short 7777).
    virtual void reply(std::string encodedFields) = 0;
    // Sends one error value in place of the next reply field and closes.
    virtual void fail(int code, std::string_view message) = 0;
    // False once the peer has closed or the connection was dropped.
    virtual bool isOpen() const = 0;
    // Runs once if the connection closes before the request is answered
    // (a lock waiter leaving its queue, say). Runs on the event loop.
    virtual void onClose(std::function<void()> handler) = 0;
};

struct Request {
    std::string service;
    std::string name;
    std::vector<Value> fields;
    PeerInfo peer;
    std::shared_ptr<Responder> responder;
};

// Daemon-wide publication of events on the notification network
// (protocol.md §5); the Notifier implements it, other services use it.
class EventPublisher {
public:
    virtual ~EventPublisher() = default;
    // Sender "ksd"; text part; payload = one native-order 4-byte int.
    virtual void publishEvent(const std::string& eventName, const std::string& text, std::int32_t code) = 0;
};

// Read-only counters for `ksctl status`, as name/value pairs.
struct StatusItem {
    std::string name;
    std::int64_t value;
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
    // Answers an operator's query (e.g. "jobs", "locks") as a JSON value, or
    // an empty string when this service does not know the query.
    virtual std::string query(std::string_view what) const {
        (void)what;
        return {};
    }
};

// Helpers for plans made of fixed field lists.
FieldPlan fixedPlan(std::vector<FieldKind> kinds);

}  // namespace ksd

#endif
