#ifndef KSD_SERVICES_ARBITER_LOCK_RECORD_H
#define KSD_SERVICES_ARBITER_LOCK_RECORD_H

// One resource's lock as the cluster's bucket keeps it: the holder, the
// handle, and the queue of waiters of every node, first come first served.
// Every change is a write at the revision read (compare-and-set), so a grant
// exists only once the bucket confirmed it. Its handle is the record's
// revision the granting write was made over: one write only wins over each,
// and a revision is one write's of one record, so the handle is unique in the
// cluster and grows per resource. It is kept in the record,
// never derived from how a reader learnt of it. A claim names the
// node and the node's epoch that made it; a claim of a dead epoch is skipped
// and a holder of one is released.

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/bucket_cas.h"
#include "cluster/cluster_link.h"

namespace ksd::locks {

struct Claim {
    std::string node, epoch;
    std::uint64_t id = 0;  // the waiter's, unique in its epoch
    std::int64_t pid = -1;
    std::int64_t uid = -1;
    bool same(const Claim& o) const { return id == o.id && epoch == o.epoch && node == o.node; }
};

struct LockRecord {
    std::uint64_t version = 0;  // writes made to the record: which of two copies is newer
    std::optional<Claim> holder;
    std::uint64_t handle = 0;   // with a holder: the record's revision its grant was written over
    std::int32_t lastCode = 0;  // how the last holder left (lock event code)
    std::vector<Claim> queue;
};

std::string encodeRecord(const LockRecord& r);
// False for a record cut short.
bool decodeRecord(std::string_view in, LockRecord& r);

using DeadEpochs = std::set<std::string>;

// What a write did; `record` is as the bucket now has it (when Ok), whether
// or not this call wrote.
struct Written {
    ClusterBucket::Result result = ClusterBucket::Result::Unreachable;
    bool wrote = false;
    LockRecord record;
    std::vector<Claim> removed;  // the claims this write took out (released, left, reaped)
    bool full = false;           // not written: the user has every place already (placeIn)
    bool placed = false;         // a place was taken for the claim, which may not be in the record
};

std::string recordKey(std::string_view resource);
// The resource of a record key, empty for another key.
std::string resourceOfKey(std::string_view key);
// "n.<hex node>.<epoch>": "live" while the epoch renews it, "dead" once it may not.
std::string epochKey(std::string_view node, std::string_view epoch);
inline constexpr std::string_view kLive = "live", kDead = "dead";

// Places: "u.<uid>" counts the claims of a user other than root that the
// records hold (held or queued) or are about to. A place is taken before a
// claim is written and given back by whichever write takes the claim out,
// so the count is never below the claims there (left too high when NATS
// goes between two writes, or the node dies before it gives a place back).
std::string placesKey(std::int64_t uid);
// Places given back wait on the node's worker for its next write: a claim
// of the same user takes one of them rather than a place of its own, which
// saves a lock after an unlock a round trip. (Negative: places a claim in the
// record took while NATS could not say.) Worker only (but `flushAsked`).
struct OwedPlaces {
    std::map<std::int64_t, std::int64_t> byUser;
    std::atomic<bool> flushAsked{false};
};
inline void owe(OwedPlaces& owed, std::int64_t uid, std::int64_t places) {
    if ((owed.byUser[uid] += places) == 0) owed.byUser.erase(uid);
}
// Takes a place for `uid`: one owed back, else one more unless it has `limit` already (`full` then).
ClusterBucket::Result placeIn(ClusterBucket& b, OwedPlaces& owed, std::int64_t uid, std::size_t limit, bool& full);
inline void unplace(OwedPlaces& owed, std::int64_t uid) { owe(owed, uid, 1); }
// Writes the places owed; those NATS did not take stay owed.
void giveBackIn(ClusterBucket& b, OwedPlaces& owed);
bool holdsClaim(const LockRecord& r, const Claim& claim);

// Joins the queue, or takes the lock when it is free or its holder's epoch
// is dead. `tryOnly`: never queues. Asking twice with one claim changes nothing.
Written lockIn(ClusterBucket& b, const std::string& key, const Claim& claim, bool tryOnly, const DeadEpochs& dead);
// As lockIn, with a place for the claim's user (placeIn first, `full` when
// refused; given back when the claim did not go in). When this node knows
// both keys, the place and the claim are written in one round trip; a claim
// that went in while the count moved on takes its place after, and goes out
// again (`full`) if that passed `limit`.
Written placeAndLockIn(ClusterBucket& b, OwedPlaces& owed, const std::string& key, const Claim& claim, bool tryOnly,
                       const DeadEpochs& dead, std::size_t limit);
// Frees the lock of `handle` (nothing when another holds it now) and hands it to
// the first live waiter, the next holder's handle being this write's revision.
Written releaseIn(ClusterBucket& b, const std::string& key, std::uint64_t handle, std::int32_t code,
                  const DeadEpochs& dead);
// Takes a claim out of the queue, or frees the lock if it was granted meanwhile.
Written leaveIn(ClusterBucket& b, const std::string& key, const Claim& claim, const DeadEpochs& dead);
// The record as the bucket's leader has it, written by nobody.
Written readIn(ClusterBucket& b, const std::string& key);
// Releases a holder of a dead epoch and drops such waiters.
Written reapIn(ClusterBucket& b, const std::string& key, const DeadEpochs& dead);

}  // namespace ksd::locks

#endif
