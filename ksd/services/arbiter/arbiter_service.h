#ifndef KSD_SERVICES_ARBITER_ARBITER_SERVICE_H
#define KSD_SERVICES_ARBITER_ARBITER_SERVICE_H

// The "Arbiter" service: named locks. A free resource is granted at once
// with a new handle (1.., never reused while the daemon runs); a held one
// queues the caller first come, first served, for up to its time-out (-110
// after it; 0 tries once; negative waits without limit), with timers on the
// loop, never a blocked thread. A lock belongs to the process that took it:
// when that process ends its locks are released (event code -1). A TCP
// client has no process, its locks last until unlocked. Locks live in memory
// only: they belong to live processes and do not survive a restart.

#include <sys/types.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "cluster/cluster_link.h"
#include "services/arbiter/arbiter_limits.h"
#include "services/arbiter/cluster_locks.h"
#include "services/arbiter/lock_store.h"
#include "services/arbiter/process_monitor.h"
#include "services/list_page.h"
#include "services/service.h"

namespace ksd {

class ArbiterService final : public Service {
public:
    // Lock event codes (protocol.md §5).
    static constexpr std::int32_t kEventLocked = 1;
    static constexpr std::int32_t kEventUnlocked = 0;
    static constexpr std::int32_t kEventHolderEnded = -1;

    // `monitor` null: watch holders with pidfds on `io`. Without a store
    // (restoreFrom) handles count from 1 in memory and nothing is kept.
    ArbiterService(asio::io_context& io, EventPublisher& events, ArbiterLimits limits = {},
                   std::unique_ptr<ProcessMonitor> monitor = nullptr);
    ~ArbiterService() override;

    std::string_view name() const override { return "Arbiter"; }
    const FieldPlan* plan(std::string_view request) const override;
    void handle(Request& request) override;
    std::vector<StatusItem> status() const override;
    // "locks" / "locks>H": a page of the held locks in handle order (those
    // after handle H), as a JSON array of objects; "[]" past the last.
    std::string query(std::string_view what) const override;
    // In a cluster, "locks" lists the cluster's held locks, once the watch caught up.
    bool answerLater(std::string_view what, const PeerInfo& asker,
                     const std::shared_ptr<Responder>& responder) override;

    std::size_t locksHeld() const { return handles_.size(); }

    // Takes back the stored locks whose holder still lives (same pid, same
    // start time), releases the others with lock code -1, and stores every
    // later change and handle there.
    void restoreFrom(std::unique_ptr<LockStore> store);
    // Locks become the cluster's (see cluster_locks.h); this node's holds are kept in `stateDir`.
    void useCluster(ClusterLink& link, const std::filesystem::path& stateDir);
    std::size_t waiting() const;

private:
    struct Holder {
        std::int64_t handle = 0;
        PeerInfo peer;
        std::chrono::steady_clock::time_point since;
    };
    struct Waiter {
        std::uint64_t id = 0;
        PeerInfo peer;
        std::shared_ptr<Responder> responder;
        std::unique_ptr<asio::steady_timer> timer;
    };
    struct Resource {
        std::optional<Holder> holder;
        // By waiter id, which grows with every request: first come first
        // out, and one that leaves is found without walking the queue.
        std::map<std::uint64_t, Waiter> waiters;
    };

    void lock(Request& request);
    void unlock(Request& request);
    // Grants `resource` to the requester; false when its process has already ended.
    bool grant(const std::string& name, Resource& resource, const PeerInfo& peer, Responder& responder);
    // Frees the lock of `handle`, publishes `eventCode`, hands the resource on.
    void release(std::int64_t handle, std::int32_t eventCode);
    void grantNext(const std::string& name);
    // Takes a waiter out of its queue; null when it is no longer there.
    std::optional<Waiter> takeWaiter(const std::string& name, std::uint64_t waiterId);
    void waiterTimedOut(const std::string& name, std::uint64_t waiterId);
    void processEnded(pid_t pid);
    void publish(const std::string& resourceName, std::int32_t code);
    // Watches a holder's process; false when it has already ended.
    bool watchHolder(const PeerInfo& peer);
    // Runs a store write; a failure is logged and memory stays authoritative.
    template <typename Write>
    void persist(Write write);

    asio::io_context& io_;
    EventPublisher& events_;
    ArbiterLimits limits_;
    std::unique_ptr<ProcessMonitor> monitor_;
    FieldPlan lockPlan_;
    FieldPlan unlockPlan_;
    std::unordered_map<std::string, Resource> resources_;
    std::map<std::int64_t, std::string> handles_;                  // held locks, in handle order for the pages
    std::unordered_map<pid_t, std::set<std::int64_t>> byProcess_;  // watched holders
    std::unordered_map<uid_t, std::size_t> heldByUser_;
    std::int64_t lastHandle_ = 0;
    std::unique_ptr<LockStore> store_;
    std::uint64_t lastWaiterId_ = 0;
    std::unique_ptr<ClusterLocks> cluster_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();
};

}  // namespace ksd

#endif
