#ifndef KSD_PROTOCOL_REQUEST_H
#define KSD_PROTOCOL_REQUEST_H

// One decoded request and the channel its answer goes back on. A request's
// fields are described by a FieldPlan, asked after each field, so that the
// parser decodes incrementally and never trusts a length it was not told.

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

// Who sent a request. A Unix client is known by its peer credentials; a
// loopback TCP client by the owner of its socket (no pid), when the kernel
// tells it.
struct PeerInfo {
    bool isUnix = false;
    bool tcpOwnerKnown = false;
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::uint64_t connectionId = 0;  // unique per accepted connection
};

// Whether `uid` is the kernel's word. A client without it is nobody: it may
// publish and read, nothing else.
inline bool isIdentified(const PeerInfo& peer) { return peer.isUnix || peer.tcpOwnerKnown; }

// Root, known as such: trusted, and bound by none of the per-user limits.
inline bool isRoot(const PeerInfo& peer) { return isIdentified(peer) && peer.uid == 0; }

// "pid P uid U" for a Unix client, "a TCP client [of uid U]" otherwise: log
// lines about a client say who it is.
std::string peerText(const PeerInfo& peer);

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

// A plan made of a fixed list of fields.
FieldPlan fixedPlan(std::vector<FieldKind> kinds);

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

// Encoded single-value replies, the common answer shapes.
std::string intReply(std::int32_t value);
std::string longReply(std::int64_t value);
std::string stringReply(std::string_view value);

}  // namespace ksd

#endif
