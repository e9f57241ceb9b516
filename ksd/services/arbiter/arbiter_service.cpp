#include "services/arbiter/arbiter_service.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include "OrvoLogging.h"
#include "services/arbiter/lock_listing.h"
#include "store/write_or_log.h"

namespace ksd {

namespace {

namespace Codec = OrvoNet::Codec;

constexpr std::int64_t kTimedOut = -ETIMEDOUT;  // -110

// Whether `caller` may free a lock taken by `holder`: the same user, or root.
bool mayUnlock(const PeerInfo& caller, const PeerInfo& holder) {
    if (isRoot(caller)) return true;
    return isIdentified(caller) && isIdentified(holder) && caller.uid == holder.uid;
}

}  // namespace

ArbiterService::ArbiterService(asio::io_context& io, EventPublisher& events, ArbiterLimits limits,
                               std::unique_ptr<ProcessMonitor> monitor)
    : io_(io),
      events_(events),
      limits_(limits),
      monitor_(monitor ? std::move(monitor) : std::make_unique<PidfdMonitor>(io)),
      lockPlan_(fixedPlan({FieldKind::String, FieldKind::Long})),
      unlockPlan_(fixedPlan({FieldKind::Long})) {}

ArbiterService::~ArbiterService() {
    cluster_.reset();
    // Pending timers and close handlers check `alive_` and stay away from us.
    alive_.reset();
    for (auto& [name, resource] : resources_)
        for (auto& [id, w] : resource.waiters)
            if (w.timer) w.timer->cancel();
    for (auto& [pid, handles] : byProcess_) monitor_->unwatch(pid);
}

const FieldPlan* ArbiterService::plan(std::string_view request) const {
    if (request == "TRVX_RA_LOCK") return &lockPlan_;
    if (request == "TRVX_RA_UNLOCK") return &unlockPlan_;
    return nullptr;
}

void ArbiterService::handle(Request& request) {
    if (request.name == "TRVX_RA_LOCK") return lock(request);
    if (request.name == "TRVX_RA_UNLOCK") return unlock(request);
    request.responder->fail(ENOSYS, "Arbiter does not serve " + request.name);
}

void ArbiterService::lock(Request& request) {
    const std::string& name = request.fields[0].text;
    const std::int64_t ms = request.fields[1].integer;
    Responder& responder = *request.responder;
    if (name.size() > limits_.maxNameLength)
        return responder.fail(EMSGSIZE,
                              "resource name longer than " + std::to_string(limits_.maxNameLength) + " bytes");
    if (name.empty()) return responder.reply(longReply(-EINVAL));
    if (!isIdentified(request.peer)) return responder.fail(EACCES, "a TCP client whose owner is unknown may not lock");
    const auto held = heldByUser_.find(request.peer.uid);
    if (!isRoot(request.peer) && held != heldByUser_.end() && held->second >= limits_.maxLocksPerUser)
        return responder.fail(
            EDQUOT, "too many locks held by this user (limit " + std::to_string(limits_.maxLocksPerUser) + ")");
    if (cluster_) return cluster_->lock(name, ms > limits_.maxTimeoutMs ? -1 : ms, request.peer, request.responder);

    Resource& resource = resources_[name];
    if (!resource.holder) {
        if (!grant(name, resource, request.peer, responder) && !resource.holder && resource.waiters.empty())
            resources_.erase(name);
        return;
    }
    if (ms == 0) return responder.reply(longReply(kTimedOut));

    Waiter waiter;
    waiter.id = ++lastWaiterId_;
    waiter.peer = request.peer;
    waiter.responder = request.responder;
    const std::uint64_t id = waiter.id;
    std::weak_ptr<char> alive = alive_;
    if (ms > 0 && ms <= limits_.maxTimeoutMs) {
        waiter.timer = std::make_unique<asio::steady_timer>(io_, std::chrono::milliseconds(ms));
        waiter.timer->async_wait([this, alive, name, id](const std::error_code& ec) {
            if (ec || alive.expired()) return;
            waiterTimedOut(name, id);
        });
    }
    resource.waiters.emplace_hint(resource.waiters.end(), id, std::move(waiter));
    // A waiter that hangs up leaves the queue (nobody would take the handle).
    request.responder->onClose([this, alive, name, id] {
        if (alive.expired()) return;
        if (takeWaiter(name, id)) ORVO_LOG(9, "ksd: lock waiter for '" << name << "' left");
    });
}

bool ArbiterService::grant(const std::string& name, Resource& resource, const PeerInfo& peer, Responder& responder) {
    if (lastHandle_ >= std::numeric_limits<std::int32_t>::max()) {
        // Clients read handles as 32-bit ints; rather refuse than reuse one.
        responder.reply(longReply(-ENOSPC));
        return false;
    }
    if (!watchHolder(peer)) return false;
    // A handle from before a restart must never name another lock.
    std::int64_t handle = lastHandle_ + 1;
    if (store_) {
        try {
            handle = store_->nextHandle();
            store_->put(StoredLock{handle, name, peer, processStartTime(peer.pid)});
        } catch (const std::exception& e) {
            ORVO_LOG(1, "ksd: arbiter: lock of '" << name << "' not stored: " << e.what());
            responder.reply(longReply(-EIO));
            return false;
        }
    }
    lastHandle_ = handle;
    resource.holder = Holder{handle, peer, std::chrono::steady_clock::now()};
    handles_[handle] = name;
    if (auto it = byProcess_.find(peer.pid); peer.isUnix && it != byProcess_.end()) it->second.insert(handle);
    ++heldByUser_[peer.uid];
    responder.reply(longReply(handle));
    publish(name, kEventLocked);
    return true;
}

void ArbiterService::unlock(Request& request) {
    const std::int64_t handle = request.fields[0].integer;
    if (cluster_) return cluster_->unlock(handle, request.peer, request.responder);
    auto it = handles_.find(handle);
    if (it == handles_.end()) return request.responder->reply(longReply(-ENOENT));
    const Holder& holder = *resources_.at(it->second).holder;
    if (!mayUnlock(request.peer, holder.peer)) return request.responder->reply(longReply(-EPERM));
    // Stored before the answer: an acknowledged unlock survives a kill of ksd.
    release(handle, kEventUnlocked);
    request.responder->reply(longReply(0));
}

void ArbiterService::release(std::int64_t handle, std::int32_t eventCode) {
    auto it = handles_.find(handle);
    if (it == handles_.end()) return;
    const std::string name = it->second;
    handles_.erase(it);
    Resource& resource = resources_.at(name);
    const PeerInfo holder = resource.holder->peer;
    resource.holder.reset();
    persist([&] { store_->erase(handle); });

    if (auto u = heldByUser_.find(holder.uid); u != heldByUser_.end() && --u->second == 0) heldByUser_.erase(u);
    if (auto p = byProcess_.find(holder.pid); holder.isUnix && p != byProcess_.end()) {
        p->second.erase(handle);
        if (p->second.empty()) {
            monitor_->unwatch(holder.pid);
            byProcess_.erase(p);
        }
    }
    publish(name, eventCode);
    grantNext(name);
}

void ArbiterService::grantNext(const std::string& name) {
    auto it = resources_.find(name);
    if (it == resources_.end()) return;
    Resource& resource = it->second;
    while (!resource.holder && !resource.waiters.empty()) {
        Waiter next = std::move(resource.waiters.begin()->second);
        resource.waiters.erase(resource.waiters.begin());
        if (next.timer) next.timer->cancel();
        if (!next.responder->isOpen()) continue;
        grant(name, resource, next.peer, *next.responder);
    }
    if (!resource.holder && resource.waiters.empty()) resources_.erase(it);
}

std::optional<ArbiterService::Waiter> ArbiterService::takeWaiter(const std::string& name, std::uint64_t waiterId) {
    auto it = resources_.find(name);
    if (it == resources_.end()) return std::nullopt;
    auto& queue = it->second.waiters;
    auto w = queue.find(waiterId);
    if (w == queue.end()) return std::nullopt;
    Waiter taken = std::move(w->second);
    queue.erase(w);
    if (taken.timer) taken.timer->cancel();
    return taken;
}

void ArbiterService::waiterTimedOut(const std::string& name, std::uint64_t waiterId) {
    // Already granted or gone when the timer fired in the same loop turn.
    if (auto waiter = takeWaiter(name, waiterId)) waiter->responder->reply(longReply(kTimedOut));
}

void ArbiterService::processEnded(pid_t pid) {
    auto it = byProcess_.find(pid);
    if (it == byProcess_.end()) return;
    const std::set<std::int64_t> handles = it->second;
    ORVO_LOG(4, "ksd: process " << static_cast<int>(pid) << " ended holding "
                                << static_cast<unsigned long>(handles.size()) << " lock(s); releasing them");
    for (std::int64_t handle : handles) release(handle, kEventHolderEnded);
}

bool ArbiterService::watchHolder(const PeerInfo& peer) {
    if (!peer.isUnix || peer.pid <= 0 || byProcess_.find(peer.pid) != byProcess_.end()) return true;
    const pid_t pid = peer.pid;
    std::weak_ptr<char> alive = alive_;
    const auto result = monitor_->watch(pid, [this, alive, pid] {
        if (!alive.expired()) processEnded(pid);
    });
    if (result == ProcessMonitor::WatchResult::Gone) return false;
    if (result == ProcessMonitor::WatchResult::Watching) byProcess_[pid];
    // Unsupported: the lock lasts until unlocked, like a TCP client's.
    return true;
}

template <typename Write>
void ArbiterService::persist(Write write) {
    if (store_) store::writeOrLog("arbiter: lock table", write);
}

void ArbiterService::restoreFrom(std::unique_ptr<LockStore> store) {
    store_ = std::move(store);
    for (StoredLock& lock : store_->loadAll()) {
        lastHandle_ = std::max(lastHandle_, lock.handle);
        // A reused pid has another start time: its process is not the holder.
        const bool holderLives = lock.holder.isUnix && lock.startTime != 0 &&
                                 processStartTime(lock.holder.pid) == lock.startTime && watchHolder(lock.holder);
        if (!holderLives) {
            persist([&] { store_->erase(lock.handle); });
            ORVO_LOG(4, "ksd: arbiter: lock " << lock.handle << " of '" << lock.resource << "' held by pid "
                                              << static_cast<int>(lock.holder.pid) << " released: the holder is gone");
            publish(lock.resource, kEventHolderEnded);
            continue;
        }
        Resource& resource = resources_[lock.resource];
        resource.holder = Holder{lock.handle, lock.holder, std::chrono::steady_clock::now()};
        handles_[lock.handle] = lock.resource;
        if (auto it = byProcess_.find(lock.holder.pid); it != byProcess_.end()) it->second.insert(lock.handle);
        ++heldByUser_[lock.holder.uid];
        ORVO_LOG(5, "ksd: arbiter: lock " << lock.handle << " of '" << lock.resource << "' held again for pid "
                                          << static_cast<int>(lock.holder.pid) << " uid "
                                          << static_cast<long>(lock.holder.uid));
    }
}

void ArbiterService::useCluster(ClusterLink& link, const std::filesystem::path& stateDir) {
    cluster_ = std::make_unique<ClusterLocks>(io_, link, events_, *monitor_, link.lease(), stateDir / "cluster-locks",
                                              limits_.maxLocksPerUser);
}

void ArbiterService::publish(const std::string& resourceName, std::int32_t code) {
    // Every client may list every lock: every subscriber hears of all of them.
    events_.publishEvent(EventFamily::Lock, resourceName, code, EventAudience::everyone());
}

std::size_t ArbiterService::waiting() const {
    std::size_t n = 0;
    for (const auto& [name, resource] : resources_) n += resource.waiters.size();
    return n;
}

std::vector<StatusItem> ArbiterService::status() const {
    if (cluster_)
        return {{"locks_held", static_cast<std::int64_t>(cluster_->held())},
                {"lock_waiters", static_cast<std::int64_t>(cluster_->waiting())}};
    return {{"locks_held", static_cast<std::int64_t>(handles_.size())},
            {"lock_waiters", static_cast<std::int64_t>(waiting())}};
}

bool ArbiterService::answerLater(std::string_view what, const PeerInfo& asker,
                                 const std::shared_ptr<Responder>& responder) {
    (void)asker;  // every client may list every lock
    const auto after = pageAfter(what, "locks");
    if (!cluster_ || !after) return false;
    cluster_->page(*after, limits_.listPageBytes, [responder](std::string json) {
        if (json.empty()) return responder->fail(EAGAIN, "the cluster's locks cannot be read now");
        responder->reply(stringReply(json));
    });
    return true;
}

std::string ArbiterService::query(std::string_view what) const {
    const auto after = pageAfter(what, "locks");
    if (!after) return {};
    const auto now = std::chrono::steady_clock::now();
    std::string out = "[";
    for (auto it = handles_.upper_bound(*after);
         it != handles_.end() && (out.size() == 1 || out.size() < limits_.listPageBytes); ++it) {
        // (at least one lock per page, so that the pages advance)
        const std::string& name = it->second;
        const Resource& resource = resources_.at(name);
        const Holder& h = *resource.holder;
        const auto ofUnix = [&](std::int64_t n) { return h.peer.isUnix ? std::optional(n) : std::nullopt; };
        appendListedLock(out, {.name = name,
                               .handle = h.handle,
                               .pid = ofUnix(h.peer.pid),
                               .uid = ofUnix(h.peer.uid),
                               .node = std::nullopt,
                               .heldMs = std::chrono::duration_cast<std::chrono::milliseconds>(now - h.since).count(),
                               .waiters = resource.waiters.size()});
    }
    out.push_back(']');
    return out;
}

}  // namespace ksd
