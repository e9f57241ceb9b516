#ifndef KSD_SERVICES_ARBITER_CLUSTER_LOCKS_H
#define KSD_SERVICES_ARBITER_CLUSTER_LOCKS_H

// Locks of a cluster node: granted only by a confirmed write to the
// cluster's bucket (see lock_record.h), handed over across nodes as the
// bucket's watch pushes each change. A node holds its holders' locks under
// an epoch it renews well within the lease; when it cannot, it tells its
// holders (code -1) before the lease can pass and gives the epoch up. Any
// node ends the epoch of a node silent for a whole lease and frees its locks.
// A restarted node takes its epoch back, and its live holders' locks with it,
// when the lease has not passed.

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

#include "cluster/cluster_link.h"
#include "services/arbiter/lock_record.h"
#include "services/arbiter/process_monitor.h"
#include "services/service.h"

namespace ksd {

class ClusterLocks {
public:
    // A user other than root has at most `maxPerUser` locks held or waited for across the cluster.
    ClusterLocks(asio::io_context& io, ClusterLink& link, EventPublisher& events, ProcessMonitor& monitor,
                 std::chrono::milliseconds lease, std::filesystem::path stateFile, std::size_t maxPerUser);
    ~ClusterLocks();

    // As TRVX_RA_LOCK: answers the handle, or -110 once `ms` passed (0: try once, < 0: no limit).
    void lock(const std::string& name, std::int64_t ms, const PeerInfo& peer, std::shared_ptr<Responder> responder);
    void unlock(std::int64_t handle, const PeerInfo& peer, std::shared_ptr<Responder> responder);
    std::size_t held() const { return holds_.size(); }
    // Waiters whose place in the cluster's queue is confirmed.
    std::size_t waiting() const;
    // A page of the cluster's held locks after handle `after`, as the "locks"
    // query answers it (each with its node), once the watch has every grant
    // the bucket's leader had when asked; empty when NATS cannot say.
    void page(std::int64_t after, std::size_t pageBytes, std::function<void(std::string)> done);

private:
    struct Waiter {
        std::string name;
        PeerInfo peer;
        bool tryOnly = false;
        bool sent = false;        // its claim may be in the bucket
        bool queued = false;      // the bucket confirmed its claim in the queue
        bool confirming = false;  // its grant, seen in the watch, is being read back
        bool placed = false;      // took a place for a claim that may not have gone in
        std::shared_ptr<Responder> responder;
        std::unique_ptr<asio::steady_timer> timer;
    };
    struct Hold {
        std::string name;
        std::uint64_t claimId = 0;
        PeerInfo peer;
        std::uint64_t startTime = 0;  // the holder's, to know it again after a restart
    };
    struct Mirrored {
        bool seen = false;
        locks::LockRecord record;
        std::chrono::steady_clock::time_point since;  // when this node saw its holder granted
    };
    struct EpochSeen {
        std::string value;
        std::uint64_t revision = 0;        // as the watch numbers it, to know its replays
        std::uint64_t leaderRevision = 0;  // as the bucket's leader last answered, 0: none since
        std::chrono::steady_clock::time_point since;
    };
    struct CatchUp {
        std::uint64_t revision = 0;
        std::function<void(bool)> then;
        std::unique_ptr<asio::steady_timer> timer;
    };
    using Written = locks::Written;

    // Unlocks a handle this node knows held (here or through the watch); false when it knows none.
    bool unlockSeen(std::uint64_t handle, const PeerInfo& peer, const std::shared_ptr<Responder>& responder);
    // Frees, by a write of this node, a lock the watch showed held through another node.
    void releaseSeen(const std::string& key, std::uint64_t handle, const std::shared_ptr<Responder>& responder);
    // Calls `then(true)` once the watch has shown every write the bucket's
    // leader had when asked; `then(false)` when NATS did not say, or the watch
    // did not get that far within a lease (ten seconds at least).
    void whenWatched(std::function<void(bool)> then);
    void caughtUp(std::uint64_t id, bool watched);

    locks::Claim claimOf(std::uint64_t id, const PeerInfo& peer) const;
    void sendLock(std::uint64_t id);
    // Answers `responder`, if any, once the first try is over.
    void sendRelease(const std::string& name, std::uint64_t handle, std::int32_t code,
                     std::shared_ptr<Responder> responder = nullptr);
    void sendLeave(const std::string& name, std::uint64_t id, std::int64_t placedFor);
    void sendReap(const std::string& key);
    // Runs a record write on the worker; `then` gets the outcome on the loop.
    // `placesFirst`: the places it gives back are written before `then`.
    template <typename Op, typename Then>
    void write(Op op, Then then, bool placesFirst = false);
    // Writes the places the writes so far gave back, after the writes asked for meanwhile.
    void giveBack();
    // Runs `again` after `after`, by default a fifth of the lease (at most 200 ms).
    void retryLater(std::function<void()> again, std::optional<std::chrono::milliseconds> after = {});
    // Calls `then` when `timer` fires, unless it was cancelled or this is gone.
    void onExpiry(asio::steady_timer& timer, void (ClusterLocks::*then)());

    void entry(ClusterEntry& e);
    // A record from the watch, or (`confirmed`, through leaderSays) as the bucket's leader has it.
    void apply(const std::string& key, const locks::LockRecord& record, bool confirmed);
    // Grants, releases or reaps what the mirrored record asks of this node. A
    // replica's watch may be wrong: a grant waits for the leader's word.
    void serve(const std::string& key, bool confirmed);
    void confirm(const std::string& key, std::uint64_t waiterId);
    // The record as the leader answered a write or a read: applied, and its holder served here.
    void leaderSays(const std::string& key, const locks::LockRecord& record);
    // The watch is made again after NATS lost a server, which can take
    // seconds; meanwhile the records waited on are read every round.
    void pollWhileTheWatchIsSilent();
    void epochSeen(const std::string& key, const std::string& value, std::uint64_t revision);
    void epochDead(const std::string& epoch);

    void grant(std::uint64_t waiterId, std::uint64_t handle);
    // Forgets a hold here; the caller saves the holds once it is done.
    void dropHold(std::uint64_t handle);
    void processEnded(pid_t pid);
    void leave(std::uint64_t waiterId, bool timedOut);
    // Answers EDQUOT: the user has every place already.
    void refuse(std::uint64_t waiterId);

    void startEpoch();
    void renew();
    void checkLease();
    void loseEpoch();
    void checkOthers();
    void saveHolds();

    asio::io_context& io_;
    ClusterLink& link_;
    EventPublisher& events_;
    ProcessMonitor& monitor_;
    const std::chrono::milliseconds lease_;
    const std::filesystem::path stateFile_;
    const std::size_t maxPerUser_;

    std::string epoch_;
    bool live_ = false, renewing_ = false, starting_ = false;
    std::chrono::steady_clock::time_point deadline_;
    std::chrono::steady_clock::time_point lastEntry_;  // the watch's last
    asio::steady_timer renewTimer_, leaseTimer_, othersTimer_;

    std::uint64_t lastId_;
    std::map<std::uint64_t, Waiter> waiters_;
    std::map<std::uint64_t, Hold> holds_;  // by handle
    std::unordered_map<pid_t, std::set<std::uint64_t>> byProcess_;
    std::unordered_map<std::string, Mirrored> mirror_;   // by key
    std::map<std::uint64_t, std::string> heldAnywhere_;  // handle -> key, as the mirror has it
    bool replaying_ = true;                              // the watch is replaying the keys as they are
    std::uint64_t replayed_ = 0;                         // the highest revision the watch has shown
    std::uint64_t watched_ = 0;                          // the same, once every key before it is in the mirror
    std::uint64_t lastCatchUp_ = 0;
    std::map<std::uint64_t, CatchUp> catchUps_;
    std::unordered_map<std::string, EpochSeen> epochs_;  // epoch keys of other nodes
    locks::DeadEpochs dead_;
    std::shared_ptr<locks::OwedPlaces> owed_ = std::make_shared<locks::OwedPlaces>();  // the worker's
    std::shared_ptr<char> alive_ = std::make_shared<char>();
};

}  // namespace ksd

#endif
