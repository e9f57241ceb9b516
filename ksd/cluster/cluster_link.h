#ifndef KSD_CLUSTER_CLUSTER_LINK_H
#define KSD_CLUSTER_CLUSTER_LINK_H

// A ksd's link to the other nodes of its cluster: notifications forwarded
// to and received from them, and the cluster's state for `ksctl status`.
// Used on the event loop only; whatever arrives from the other nodes is
// handed to the loop first. The only door to NATS in the daemon.

#include <asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/cluster_options.h"

namespace ksd {

// What a node subscribes to on the other nodes, and what a forwarded
// notification is filed under: one event name, or a whole family of daemon
// events (family "job": every job event of every node).
struct ClusterTopic {
    std::string family;  // empty: a client's notification
    std::string event;   // empty with a family: the whole family
    bool wholeFamily() const { return !family.empty() && event.empty(); }
};

// Who may hear a forwarded daemon event under its family's name: everyone,
// or the subject's owner and root.
struct ClusterAudience {
    bool everyone = true;
    std::uint32_t owner = UINT32_MAX;
};

struct RemoteNotification {
    ClusterTopic topic;  // the subscription it arrived for
    std::string event;   // its own name (a member of the family for a whole-family topic)
    std::string node, sender, text, payload;
    ClusterAudience audience;
};

struct ClusterState {
    bool connected = false;
    std::string server;          // the NATS server this node talks to, empty when none
    std::int64_t nodes = 0;      // heard from within the lease, this one included
    std::int64_t forwarded = 0;  // publications sent to the other nodes
    std::int64_t received = 0;   // publications of other nodes delivered here
    std::int64_t dropped = 0;    // publications not sent or not taken (NATS unreachable, backlog full)
};

// A key-value bucket of the cluster, each key with its revision: where jobs
// and locks are kept. Every call is a round trip to the bucket's
// stream leader, so it is only ever called from work run by runOnBucket().
class ClusterBucket {
public:
    enum class Result { Ok, Exists, Conflict, NotFound, Unreachable };
    virtual ~ClusterBucket() = default;
    virtual Result get(const std::string& key, std::string& value, std::uint64_t& revision) = 0;
    // Writes only a key that is absent (or deleted): Exists otherwise.
    virtual Result create(const std::string& key, std::string_view value, std::uint64_t& revision) = 0;
    // Writes only a key still at revision `last`: Conflict otherwise.
    virtual Result update(const std::string& key, std::string_view value, std::uint64_t last,
                          std::uint64_t& revision) = 0;
    virtual Result erase(const std::string& key) = 0;
    // The live keys that start with `prefix`.
    virtual Result keys(std::string_view prefix, std::vector<std::string>& out) = 0;
    // The revision of the bucket's last write as its stream's leader has it now.
    virtual Result lastRevision(std::uint64_t& revision) = 0;

    // A write (or with `erase`, a deletion) that holds only while its key is
    // at revision `last` (0: a key never written; a deleted key refuses
    // then, as its deletion is a revision too): Exists or Conflict otherwise,
    // with the key's revision there in `revision` (0: another write at `last`
    // came first). It holds when several nodes race on one key: one write
    // only is ever taken at each revision.
    struct Write {
        std::string key, value;
        std::uint64_t last = 0;
        bool erase = false;
        Result result = Result::Unreachable;
        std::uint64_t revision = 0;  // when written
    };
    // Sends every write at once and waits for all their answers: one round
    // trip for the lot. The leader applies them in the order given, each on
    // its own (one refused does not stop the next).
    virtual void write(std::vector<Write>& writes) = 0;
    // The key as this node last read or wrote it, when it remembers: possibly
    // stale, so only a write made over its revision may rely on it.
    virtual bool known(const std::string& /*key*/, std::string& /*value*/, std::uint64_t& /*revision*/) const {
        return false;
    }
};

// One key of a bucket as a watch reports it, or a mark around the keys as
// they are, which a watch (made again) first replays in no promised order.
struct ClusterEntry {
    enum class Kind { Key, ReplayBegins, ReplayEnds };
    Kind kind = Kind::Key;
    std::string key, value;
    std::uint64_t revision = 0;
    bool deleted = false;
};

class ClusterLink {
public:
    // Blocking work on a bucket; what it returns, if anything, is run on the loop.
    using BucketWork = std::function<std::function<void()>(ClusterBucket&)>;

    using Receiver = std::function<void(const RemoteNotification&)>;

    virtual ~ClusterLink() = default;
    virtual const std::string& node() const = 0;
    // How long a node that went silent still counts (--cluster-lease-ms).
    virtual std::chrono::milliseconds lease() const = 0;
    // Called on the loop for each notification of another node that a topic wanted here matches.
    virtual void setReceiver(Receiver receiver) = 0;
    // Starts or stops receiving a topic from the other nodes; asking twice is harmless.
    virtual void want(const ClusterTopic& topic) = 0;
    virtual void unwant(const ClusterTopic& topic) = 0;
    // Sends a publication to the nodes that want it (never back to this one);
    // counted as dropped when NATS cannot be reached now.
    virtual void forward(const ClusterTopic& topic, std::string_view sender, std::string_view text,
                         std::string_view payload, const ClusterAudience& audience = {}) = 0;
    virtual ClusterState state() const = 0;
    // Runs `work` on the bucket's own worker thread, one piece at a time in
    // the order given, against the bucket `bucket` (made when missing, replicated
    // on up to three servers). While NATS is unreachable every call answers
    // Unreachable at once; a call NATS leaves unanswered does so within the
    // write time-out.
    virtual void runOnBucket(const std::string& bucket, BucketWork work) = 0;
    // Calls `onEntry` on the loop for every key of `bucket` as it is, then
    // for every change as it is written (committed writes only), pushed by
    // NATS. After a lost connection the keys as they are come again, so an
    // entry may repeat or skip revisions between; never an older one after
    // a newer one for the same key while connected. One watch per bucket;
    // made for buckets written to at least every half lease (it is made
    // again after a silence that long).
    virtual void watchBucket(const std::string& bucket, std::function<void(ClusterEntry&)> onEntry) = 0;
};

// Connects to the cluster (in the background: the link exists at once and
// joins as soon as a server answers). Throws std::runtime_error for options
// that can never work (a bad cluster name, unreadable credentials) or when
// this ksd was built without NATS.
std::unique_ptr<ClusterLink> connectCluster(asio::io_context& io, const ClusterOptions& options);

}  // namespace ksd

#endif
