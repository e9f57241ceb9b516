#include "services/arbiter/cluster_locks.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <random>
#include <sstream>

#include "OrvoLogging.h"
#include "cluster/cluster_wire.h"
#include "services/arbiter/lock_listing.h"
#include "services/arbiter/lock_store.h"

namespace ksd {

namespace {

using Clock = std::chrono::steady_clock;
using Result = ClusterBucket::Result;
using locks::Claim;
using locks::LockRecord;

constexpr const char* kBucket = "locks";
constexpr std::int64_t kTimedOut = -ETIMEDOUT;  // -110
// How long a question waits for the watch to catch up: one just made (a node
// just started, a server just lost) can take seconds to replay the keys.
constexpr std::chrono::milliseconds kCatchUp{10000};
// How long a place given back stays this node's, for its user's next lock
// here: the locks a script takes one after another then cost what root's do.
constexpr std::chrono::milliseconds kGiveBackAfter{1000};

std::string newEpoch() {
    std::random_device rd;
    const std::uint64_t v = (std::uint64_t{rd()} << 32) ^ rd() ^
                            static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
    std::ostringstream out;
    out << std::hex << v;
    return out.str();
}

std::string epochOfKey(const std::string& key) { return key.substr(key.rfind('.') + 1); }

// Renews an epoch key unless another node has ended it: Conflict then.
Result stillLive(ClusterBucket& b, const std::string& key, std::uint64_t& written) {
    const KeyWritten w =
        rewriteKey(b, key, std::string(locks::kDead), [](const std::optional<std::string>& value, std::uint64_t) {
            return value == locks::kLive ? std::optional<std::string>(locks::kLive) : std::nullopt;
        });
    written = w.revision;
    return w.result != Result::Ok ? w.result : w.wrote ? Result::Ok : Result::Conflict;
}

}  // namespace

ClusterLocks::ClusterLocks(asio::io_context& io, ClusterLink& link, EventPublisher& events, ProcessMonitor& monitor,
                           std::chrono::milliseconds lease, std::filesystem::path stateFile, std::size_t maxPerUser)
    : io_(io),
      link_(link),
      events_(events),
      monitor_(monitor),
      lease_(lease),
      stateFile_(std::move(stateFile)),
      maxPerUser_(maxPerUser),
      renewTimer_(io),
      leaseTimer_(io),
      othersTimer_(io),
      // Waiter ids grow across restarts: a claim left in a queue by the last run names no waiter of this one.
      lastId_(static_cast<std::uint64_t>(
          std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
              .count())) {
    // The holds of the last run, under the epoch it renewed.
    std::ifstream in(stateFile_);
    std::string word;
    std::vector<std::pair<std::string, std::uint64_t>> gone;
    if (in >> word && word == "epoch" && in >> epoch_ && epoch_ != "-") {
        std::uint64_t handle = 0, id = 0, start = 0;
        long pid = 0, uid = 0;
        std::string hexName;
        while (in >> handle >> id >> pid >> uid >> start >> hexName) {
            const std::string name = cluster::fromHexToken(hexName).value_or(std::string());
            PeerInfo peer;
            peer.isUnix = true;
            peer.pid = static_cast<pid_t>(pid);
            peer.uid = static_cast<uid_t>(uid);
            if (start == 0 || processStartTime(peer.pid) != start) {
                gone.emplace_back(name, handle);
                continue;
            }
            holds_[handle] = Hold{name, id, peer, start};
            byProcess_[peer.pid].insert(handle);
        }
    } else {
        epoch_.clear();
    }
    std::weak_ptr<char> alive = alive_;
    for (auto& [pid, handles] : byProcess_)
        monitor_.watch(pid, [this, alive, pid = pid] {
            if (!alive.expired()) processEnded(pid);
        });
    for (auto& [name, handle] : gone) {
        events_.publishEvent(EventFamily::Lock, name, -1, EventAudience::everyone());
        sendRelease(name, handle, -1);
    }
    link_.watchBucket(kBucket, [this, alive](ClusterEntry& e) {
        if (!alive.expired()) entry(e);
    });
    startEpoch();
    checkOthers();
}

ClusterLocks::~ClusterLocks() {
    alive_.reset();
    renewTimer_.cancel();
    leaseTimer_.cancel();
    othersTimer_.cancel();
    for (auto& [id, w] : waiters_)
        if (w.timer) w.timer->cancel();
    for (auto& [id, c] : catchUps_) c.timer->cancel();
    for (auto& [pid, handles] : byProcess_) monitor_.unwatch(pid);
}

// ---- requests ----

void ClusterLocks::lock(const std::string& name, std::int64_t ms, const PeerInfo& peer,
                        std::shared_ptr<Responder> responder) {
    const std::uint64_t id = ++lastId_;
    Waiter w;
    w.name = name;
    w.peer = peer;
    w.tryOnly = ms == 0;
    w.responder = responder;
    std::weak_ptr<char> alive = alive_;
    if (ms > 0) {
        w.timer = std::make_unique<asio::steady_timer>(io_, std::chrono::milliseconds(ms));
        w.timer->async_wait([this, alive, id](const std::error_code& ec) {
            if (!ec && !alive.expired()) leave(id, true);
        });
    }
    waiters_.emplace(id, std::move(w));
    responder->onClose([this, alive, id] {
        if (!alive.expired()) leave(id, false);
    });
    if (live_) return sendLock(id);
    if (ms == 0) leave(id, true);  // trying once, and NATS cannot say now
}

void ClusterLocks::unlock(std::int64_t handle, const PeerInfo& peer, std::shared_ptr<Responder> responder) {
    if (handle <= 0) return responder->reply(longReply(-ENOENT));
    const auto h = static_cast<std::uint64_t>(handle);
    if (unlockSeen(h, peer, responder)) return;
    // Granted through another node a moment ago, the lock may still be on its
    // way in the watch: unknown only if the watch, caught up with the leader, does not show it.
    whenWatched([this, h, peer, responder](bool watched) {
        if (!watched) return responder->reply(longReply(-EAGAIN));
        if (!unlockSeen(h, peer, responder)) responder->reply(longReply(-ENOENT));
    });
}

bool ClusterLocks::unlockSeen(std::uint64_t h, const PeerInfo& peer, const std::shared_ptr<Responder>& responder) {
    const auto mayUnlock = [&](std::int64_t uid) {
        return isRoot(peer) || (isIdentified(peer) && static_cast<std::int64_t>(peer.uid) == uid);
    };
    if (auto it = holds_.find(h); it != holds_.end()) {
        if (!mayUnlock(it->second.peer.uid)) return responder->reply(longReply(-EPERM)), true;
        const std::string name = it->second.name;
        dropHold(h);
        saveHolds();
        sendRelease(name, h, 0, responder);
        return true;
    }
    // Held through another node: freed by a write of its own.
    auto at = heldAnywhere_.find(h);
    if (at == heldAnywhere_.end()) return false;
    const LockRecord& record = mirror_[at->second].record;
    if (!record.holder || !mayUnlock(record.holder->uid)) return responder->reply(longReply(-EPERM)), true;
    releaseSeen(at->second, h, responder);
    return true;
}

void ClusterLocks::releaseSeen(const std::string& key, std::uint64_t h, const std::shared_ptr<Responder>& responder) {
    write([key, h, dead = dead_](ClusterBucket& b) { return locks::releaseIn(b, key, h, 0, dead); },
          [this, key, h, responder](Written& w) {
              if (w.result == Result::Ok) leaderSays(key, w.record);
              // A read can answer from before what the watch showed: that says nothing of the handle.
              if (w.result == Result::Ok && !w.wrote && w.record.version < mirror_[key].record.version)
                  return retryLater([this, key, h, responder] { releaseSeen(key, h, responder); },
                                    std::chrono::milliseconds(2));
              responder->reply(longReply(w.result != Result::Ok ? -EAGAIN : w.wrote ? 0 : -ENOENT));
          },
          true);  // the user may lock on another node next
}

void ClusterLocks::whenWatched(std::function<void(bool)> then) {
    link_.runOnBucket(kBucket, [this, then = std::move(then), alive = std::weak_ptr<char>(alive_)](ClusterBucket& b) {
        std::uint64_t last = 0;
        const Result r = b.lastRevision(last);
        return std::function<void()>([this, then, alive, r, last] {
            if (alive.expired()) return;
            if (r != Result::Ok || watched_ >= last) return then(r == Result::Ok);
            const std::uint64_t id = ++lastCatchUp_;
            CatchUp& c = catchUps_[id];
            c.revision = last;
            c.then = then;
            c.timer = std::make_unique<asio::steady_timer>(io_, std::max(lease_, kCatchUp));
            c.timer->async_wait([this, alive, id](const std::error_code& ec) {
                if (!ec && !alive.expired()) caughtUp(id, false);
            });
        });
    });
}

void ClusterLocks::caughtUp(std::uint64_t id, bool watched) {
    auto it = catchUps_.find(id);
    if (it == catchUps_.end()) return;
    CatchUp c = std::move(it->second);
    catchUps_.erase(it);
    c.timer->cancel();
    c.then(watched);
}

std::size_t ClusterLocks::waiting() const {
    return static_cast<std::size_t>(
        std::count_if(waiters_.begin(), waiters_.end(), [](const auto& w) { return w.second.queued; }));
}

void ClusterLocks::page(std::int64_t after, std::size_t pageBytes, std::function<void(std::string)> done) {
    whenWatched([this, after, pageBytes, done = std::move(done)](bool watched) {
        if (!watched) return done(std::string());
        const auto now = Clock::now();
        std::string out = "[";
        for (auto it = heldAnywhere_.upper_bound(static_cast<std::uint64_t>(std::max<std::int64_t>(after, 0)));
             it != heldAnywhere_.end() && (out.size() == 1 || out.size() < pageBytes); ++it) {
            const Mirrored& m = mirror_.at(it->second);
            const Claim& h = *m.record.holder;
            appendListedLock(out,
                             {.name = locks::resourceOfKey(it->second),
                              .handle = static_cast<std::int64_t>(it->first),
                              .pid = h.pid > 0 ? std::optional<std::int64_t>(h.pid) : std::nullopt,
                              .uid = h.uid,
                              .node = h.node,
                              .heldMs = std::chrono::duration_cast<std::chrono::milliseconds>(now - m.since).count(),
                              .waiters = m.record.queue.size()});
        }
        out.push_back(']');
        done(std::move(out));
    });
}

// ---- writes ----

template <typename Op, typename Then>
void ClusterLocks::write(Op op, Then then, bool placesFirst) {
    link_.runOnBucket(kBucket, [this, op = std::move(op), then = std::move(then), owed = owed_, placesFirst,
                                alive = std::weak_ptr<char>(alive_)](ClusterBucket& b) mutable {
        Written w = op(b);
        // Each claim taken out gives its user's place back.
        for (const locks::Claim& c : w.removed)
            if (c.uid > 0) locks::unplace(*owed, c.uid);
        if (placesFirst) locks::giveBackIn(b, *owed);
        const bool owing = !owed->byUser.empty();
        return std::function<void()>([this, then, alive, owing, w = std::move(w)]() mutable {
            if (alive.expired()) return;
            then(w);
            if (owing) giveBack();
        });
    });
}

void ClusterLocks::giveBack() {
    // Later, behind the writes asked for meanwhile: a lock of the same user takes the place first.
    if (owed_->flushAsked.exchange(true)) return;
    retryLater(
        [this] {
            link_.runOnBucket(kBucket, [this, owed = owed_, alive = std::weak_ptr<char>(alive_)](ClusterBucket& b) {
                owed->flushAsked = false;
                locks::giveBackIn(b, *owed);
                // Those NATS did not take are written again later, writes or not.
                return std::function<void()>([this, alive, left = !owed->byUser.empty()] {
                    if (left && !alive.expired()) retryLater([this] { giveBack(); });
                });
            });
        },
        kGiveBackAfter);
}

void ClusterLocks::retryLater(std::function<void()> again, std::optional<std::chrono::milliseconds> after) {
    auto timer =
        std::make_shared<asio::steady_timer>(io_, after.value_or(std::min(lease_ / 5, std::chrono::milliseconds(200))));
    timer->async_wait(
        [timer, again = std::move(again), alive = std::weak_ptr<char>(alive_)](const std::error_code& ec) {
            if (!ec && !alive.expired()) again();
        });
}

void ClusterLocks::onExpiry(asio::steady_timer& timer, void (ClusterLocks::*then)()) {
    timer.async_wait([this, then, alive = std::weak_ptr<char>(alive_)](const std::error_code& ec) {
        if (!ec && !alive.expired()) (this->*then)();
    });
}

Claim ClusterLocks::claimOf(std::uint64_t id, const PeerInfo& peer) const {
    return Claim{link_.node(), epoch_, id, peer.isUnix ? peer.pid : -1, static_cast<std::int64_t>(peer.uid)};
}

void ClusterLocks::sendLock(std::uint64_t id) {
    auto it = waiters_.find(id);
    if (it == waiters_.end() || !live_) return;
    Waiter& waiter = it->second;
    waiter.sent = true;
    const std::string key = locks::recordKey(waiter.name);
    // A place is taken once per claim: again after a failed write only if none was.
    const bool place = !isRoot(waiter.peer) && !waiter.placed;
    write(
        [key, claim = claimOf(id, waiter.peer), tryOnly = waiter.tryOnly, dead = dead_, place, limit = maxPerUser_,
         owed = owed_](ClusterBucket& b) {
            return place ? locks::placeAndLockIn(b, *owed, key, claim, tryOnly, dead, limit)
                         : locks::lockIn(b, key, claim, tryOnly, dead);
        },
        [this, key, id](Written& w) {
            if (w.result == Result::Ok && !w.full) leaderSays(key, w.record);
            auto it = waiters_.find(id);
            if (it == waiters_.end()) return;  // granted
            if (w.full) return refuse(id);
            // Once a write was answered, the place is the claim's in the record, or given back.
            it->second.placed = w.result != Result::Ok && (it->second.placed || w.placed);
            if (w.result != Result::Ok && it->second.tryOnly) return leave(id, true);
            if (w.result != Result::Ok) {
                // NATS did not answer: asked again until the waiter's time-out.
                it->second.sent = it->second.queued = false;
                return retryLater([this, id] { sendLock(id); });
            }
            if (it->second.tryOnly) return leave(id, true);
            it->second.queued = true;
        });
}

void ClusterLocks::refuse(std::uint64_t waiterId) {
    auto it = waiters_.find(waiterId);
    Waiter w = std::move(it->second);
    waiters_.erase(it);
    if (w.timer) w.timer->cancel();
    w.responder->fail(EDQUOT, "too many locks held or waited for by this user in the cluster (limit " +
                                  std::to_string(maxPerUser_) + ")");
}

void ClusterLocks::sendRelease(const std::string& name, std::uint64_t handle, std::int32_t code,
                               std::shared_ptr<Responder> responder) {
    const std::string key = locks::recordKey(name);
    write([key, handle, code, dead = dead_](ClusterBucket& b) { return locks::releaseIn(b, key, handle, code, dead); },
          [this, key, name, handle, code, responder](Written& w) {
              // Unlocked once the bucket says so, as a lock on one host is free once unlocked; when
              // NATS did not answer, the holder has let go all the same.
              if (responder) responder->reply(longReply(0));
              if (w.result == Result::Ok) return leaderSays(key, w.record);
              // Held in the bucket until freed; when the epoch ends first, the other nodes free it.
              retryLater([this, name, handle, code] { sendRelease(name, handle, code); });
          });
}

void ClusterLocks::sendLeave(const std::string& name, std::uint64_t id, std::int64_t placedFor) {
    const std::string key = locks::recordKey(name);
    const Claim claim = claimOf(id, PeerInfo{});
    write(
        [key, claim, dead = dead_, placedFor, owed = owed_](ClusterBucket& b) {
            Written w = locks::leaveIn(b, key, claim, dead);
            // A place taken for a claim that never went in.
            if (placedFor > 0 && w.result == Result::Ok && !w.wrote) locks::unplace(*owed, placedFor);
            return w;
        },
        [this, key, name, id, placedFor, epoch = epoch_](Written& w) {
            if (w.result == Result::Ok) return leaderSays(key, w.record);
            if (live_ && epoch == epoch_) retryLater([this, name, id, placedFor] { sendLeave(name, id, placedFor); });
        });
}

void ClusterLocks::sendReap(const std::string& key) {
    write([key, dead = dead_](ClusterBucket& b) { return locks::reapIn(b, key, dead); },
          [this, key](Written& w) {
              if (w.result == Result::Ok) leaderSays(key, w.record);
          });
}

// ---- what the bucket says ----

void ClusterLocks::entry(ClusterEntry& e) {
    lastEntry_ = Clock::now();
    // Keys replayed come in no order: all of them are in only at the end.
    if (e.kind != ClusterEntry::Kind::Key) replaying_ = e.kind == ClusterEntry::Kind::ReplayBegins;
    replayed_ = std::max(replayed_, e.revision);
    if (!replaying_) watched_ = replayed_;
    LockRecord record;  // (a mark has no key)
    if (!e.deleted && e.key.starts_with("n."))
        epochSeen(e.key, e.value, e.revision);
    else if (!e.deleted && locks::decodeRecord(e.value, record))
        apply(e.key, record, false);
    std::vector<std::uint64_t> done;
    for (const auto& [id, c] : catchUps_)
        if (c.revision <= watched_) done.push_back(id);
    for (std::uint64_t id : done) caughtUp(id, true);
}

void ClusterLocks::apply(const std::string& key, const LockRecord& record, bool confirmed) {
    Mirrored& m = mirror_[key];
    if (m.seen && record.version <= m.record.version) return;
    const bool seenBefore = m.seen;
    const LockRecord old = std::move(m.record);
    m.seen = true;
    m.record = record;
    if (old.holder) heldAnywhere_.erase(old.handle);
    if (record.holder) heldAnywhere_[record.handle] = key;
    const std::string name = locks::resourceOfKey(key);
    const bool newHolder = record.holder && record.handle != old.handle;
    if (newHolder) m.since = Clock::now();
    if (seenBefore && old.holder && (!record.holder || newHolder))
        events_.publishEvent(EventFamily::Lock, name, record.lastCode, EventAudience::everyone());
    if (newHolder && (seenBefore || record.holder->node == link_.node()))
        events_.publishEvent(EventFamily::Lock, name, 1, EventAudience::everyone());

    // A hold here that the bucket no longer shows was freed through another node.
    std::vector<std::uint64_t> lost;
    for (const auto& [handle, hold] : holds_)
        if (hold.name == name && (!record.holder || record.handle != handle)) lost.push_back(handle);
    for (std::uint64_t handle : lost) dropHold(handle);
    if (!lost.empty()) saveHolds();
    serve(key, confirmed);
}

void ClusterLocks::serve(const std::string& key, bool confirmed) {
    const LockRecord& record = mirror_[key].record;
    if (!record.holder) return;
    const Claim& h = *record.holder;
    if (dead_.count(h.epoch) != 0) return sendReap(key);
    if (!live_ || h.epoch != epoch_ || h.node != link_.node() || holds_.count(record.handle) != 0) return;
    if (waiters_.count(h.id) == 0) return sendRelease(locks::resourceOfKey(key), record.handle, 0);  // it has left
    if (confirmed) return grant(h.id, record.handle);
    confirm(key, h.id);
}

void ClusterLocks::confirm(const std::string& key, std::uint64_t waiterId) {
    auto it = waiters_.find(waiterId);
    if (it == waiters_.end() || it->second.confirming) return;
    it->second.confirming = true;
    write([key](ClusterBucket& b) { return locks::readIn(b, key); },
          [this, key, waiterId](Written& w) {
              auto it = waiters_.find(waiterId);
              if (it != waiters_.end()) it->second.confirming = false;
              if (w.result != Result::Ok) {
                  if (it != waiters_.end()) retryLater([this, key] { serve(key, false); });
                  return;
              }
              leaderSays(key, w.record);
              // A read can answer from before the write the watch showed (one was
              // seen 15 ms behind): that proves nothing either way, so it is
              // read again while the grant is still what this node has seen.
              if (w.record.version < mirror_[key].record.version)
                  retryLater([this, key] { serve(key, false); }, std::chrono::milliseconds(2));
          });
}

void ClusterLocks::leaderSays(const std::string& key, const LockRecord& record) {
    apply(key, record, true);
    // The watch may have shown this record already, or moved on meanwhile (a
    // waiter queued behind): the leader's word that the lock is a waiter's
    // holds until this node lets go.
    const auto& h = record.holder;
    if (live_ && h && h->epoch == epoch_ && h->node == link_.node() && waiters_.count(h->id) != 0 &&
        holds_.count(record.handle) == 0)
        grant(h->id, record.handle);
}

void ClusterLocks::pollWhileTheWatchIsSilent() {
    if (Clock::now() - lastEntry_ < lease_ / 2) return;
    std::set<std::string> keys;
    for (const auto& [id, w] : waiters_)
        if (w.queued) keys.insert(locks::recordKey(w.name));
    for (const std::string& key : keys)
        write([key](ClusterBucket& b) { return locks::readIn(b, key); },
              [this, key](Written& w) {
                  if (w.result == Result::Ok) leaderSays(key, w.record);
              });
}

void ClusterLocks::grant(std::uint64_t waiterId, std::uint64_t handle) {
    auto it = waiters_.find(waiterId);
    Waiter w = std::move(it->second);
    waiters_.erase(it);
    if (w.timer) w.timer->cancel();
    const PeerInfo& peer = w.peer;
    bool lives = w.responder->isOpen();
    if (lives && peer.isUnix && peer.pid > 0 && byProcess_.count(peer.pid) == 0) {
        std::weak_ptr<char> alive = alive_;
        const pid_t pid = peer.pid;
        const auto watched = monitor_.watch(pid, [this, alive, pid] {
            if (!alive.expired()) processEnded(pid);
        });
        lives = watched != ProcessMonitor::WatchResult::Gone;
        if (watched == ProcessMonitor::WatchResult::Watching) byProcess_[pid];
    }
    if (!lives) return sendRelease(w.name, handle, -1);
    if (auto p = byProcess_.find(peer.pid); peer.isUnix && p != byProcess_.end()) p->second.insert(handle);
    holds_[handle] = Hold{w.name, waiterId, peer, peer.isUnix ? processStartTime(peer.pid) : 0};
    saveHolds();
    w.responder->reply(longReply(static_cast<std::int64_t>(handle)));
}

void ClusterLocks::dropHold(std::uint64_t handle) {
    auto it = holds_.find(handle);
    if (it == holds_.end()) return;
    const PeerInfo peer = it->second.peer;
    holds_.erase(it);
    if (auto p = byProcess_.find(peer.pid); peer.isUnix && p != byProcess_.end()) {
        p->second.erase(handle);
        if (p->second.empty()) {
            monitor_.unwatch(peer.pid);
            byProcess_.erase(p);
        }
    }
}

void ClusterLocks::processEnded(pid_t pid) {
    auto it = byProcess_.find(pid);
    if (it == byProcess_.end()) return;
    const std::set<std::uint64_t> handles = it->second;
    for (std::uint64_t handle : handles) {
        const std::string name = holds_.at(handle).name;
        dropHold(handle);
        sendRelease(name, handle, -1);
    }
    saveHolds();
}

void ClusterLocks::leave(std::uint64_t waiterId, bool timedOut) {
    auto it = waiters_.find(waiterId);
    if (it == waiters_.end()) return;
    Waiter w = std::move(it->second);
    waiters_.erase(it);
    if (w.timer) w.timer->cancel();
    if (timedOut) w.responder->reply(longReply(kTimedOut));
    // (trying once never queues)
    if (w.sent && !w.tryOnly && live_)
        sendLeave(w.name, waiterId, w.placed ? static_cast<std::int64_t>(w.peer.uid) : 0);
}

// ---- epochs: this node's, and the others' ----

void ClusterLocks::startEpoch() {
    if (starting_) return;
    starting_ = true;
    const bool adopt = !epoch_.empty();
    const std::string epoch = adopt ? epoch_ : newEpoch();
    const std::string key = locks::epochKey(link_.node(), epoch);
    link_.runOnBucket(kBucket, [=, this, alive = std::weak_ptr<char>(alive_)](ClusterBucket& b) {
        // The lease counts from before the write: whoever sees it, sees it later.
        const auto sent = Clock::now();
        std::uint64_t written = 0;
        Result r = Result::NotFound;
        if (adopt) {
            r = stillLive(b, key, written);
        } else {
            r = b.create(key, locks::kLive, written);
        }
        return std::function<void()>([=, this] {
            if (alive.expired()) return;
            starting_ = false;
            if (r == Result::Unreachable) return retryLater([this] { startEpoch(); });
            if (r != Result::Ok) {
                // The last run's epoch has ended: its holders here have lost their locks.
                ORVO_LOG(4, "ksd: cluster locks: epoch " << epoch << " of the last run has ended; " << holds_.size()
                                                         << " lock(s) lost");
                loseEpoch();
                return;
            }
            epoch_ = epoch;
            live_ = true;
            deadline_ = sent + lease_ - lease_ / 4;
            ORVO_LOG(4, "ksd: cluster locks: node " << link_.node() << " holds under epoch " << epoch_
                                                    << (adopt ? " again" : ""));
            saveHolds();
            for (auto& [id, w] : waiters_)
                if (!w.sent) sendLock(id);
            checkLease();
            renew();
        });
    });
}

void ClusterLocks::renew() {
    renewTimer_.expires_after(std::max(lease_ / 5, std::chrono::milliseconds(20)));
    onExpiry(renewTimer_, &ClusterLocks::renew);
    if (!live_ || renewing_) return;
    renewing_ = true;
    const std::string key = locks::epochKey(link_.node(), epoch_);
    link_.runOnBucket(kBucket, [=, this, epoch = epoch_, alive = std::weak_ptr<char>(alive_)](ClusterBucket& b) {
        const auto sent = Clock::now();
        std::uint64_t written = 0;
        const Result r = stillLive(b, key, written);
        return std::function<void()>([=, this] {
            if (alive.expired()) return;
            renewing_ = false;
            if (!live_ || epoch != epoch_) return;
            // An answer after the deadline extends nothing: the holders may already have been told.
            if (r == Result::Ok && Clock::now() < deadline_) {
                deadline_ = sent + lease_ - lease_ / 4;
            } else if (r == Result::Conflict) {
                ORVO_LOG(1, "ksd: cluster locks: another node ended epoch " << epoch_ << " (silent too long)");
                loseEpoch();
            }
        });
    });
}

void ClusterLocks::checkLease() {
    if (!live_) return;
    if (Clock::now() >= deadline_) {
        ORVO_LOG(1, "ksd: cluster locks: could not renew epoch " << epoch_ << " within the lease");
        return loseEpoch();
    }
    leaseTimer_.expires_at(deadline_);
    onExpiry(leaseTimer_, &ClusterLocks::checkLease);
}

void ClusterLocks::loseEpoch() {
    live_ = false;
    leaseTimer_.cancel();
    // Told a quarter lease before another node may be granted these locks.
    std::vector<std::uint64_t> lost;
    for (const auto& [handle, hold] : holds_) lost.push_back(handle);
    for (std::uint64_t handle : lost) {
        const std::string name = holds_.at(handle).name;
        dropHold(handle);
        events_.publishEvent(EventFamily::Lock, name, -1, EventAudience::everyone());
    }
    // Their claims go with the epoch, and their places with the claims (or stay taken when a claim's write was not
    // answered).
    for (auto& [id, w] : waiters_) w.sent = w.queued = w.placed = false;
    epoch_.clear();
    saveHolds();
    // Not ended here, nor taken for dead: its holders were told, but may need a
    // moment to stop. Every node (this one too) ends it a whole lease after its
    // last renewal, as for a dead node.
    startEpoch();
}

void ClusterLocks::epochSeen(const std::string& key, const std::string& value, std::uint64_t revision) {
    if (!epoch_.empty() && key == locks::epochKey(link_.node(), epoch_)) {
        if (value == locks::kDead && live_) {
            ORVO_LOG(1, "ksd: cluster locks: another node ended epoch " << epoch_);
            loseEpoch();
        }
        return;
    }
    EpochSeen& seen = epochs_[key];
    if (seen.value == locks::kDead) return;                          // for good
    if (revision <= seen.revision && value != locks::kDead) return;  // a replay of the watch
    seen = EpochSeen{value, revision, 0, Clock::now()};
    if (value == locks::kDead) epochDead(epochOfKey(key));
}

void ClusterLocks::epochDead(const std::string& epoch) {
    if (!dead_.insert(epoch).second) return;
    for (const auto& [key, m] : mirror_) {
        const LockRecord& r = m.record;
        if ((r.holder && r.holder->epoch == epoch) ||
            std::any_of(r.queue.begin(), r.queue.end(), [&](const Claim& c) { return c.epoch == epoch; }))
            sendReap(key);
    }
}

void ClusterLocks::checkOthers() {
    const auto now = Clock::now();
    for (auto& [key, seen] : epochs_) {
        if (seen.value != locks::kLive || now - seen.since < lease_) continue;
        // Silent for a whole lease since this node first saw its last renewal: its node has
        // told its holders by now. Ended only if nobody renewed it meanwhile.
        // The watch's own numbering may not be the leader's: after a refusal the
        // next try is made at the revision the leader gave.
        seen.since = now;
        link_.runOnBucket(kBucket, [=, this, k = key, watched = seen.revision, told = seen.leaderRevision,
                                    alive = std::weak_ptr<char>(alive_)](ClusterBucket& b) {
            const KeyWritten w = rewriteKey(
                b, k, std::string(locks::kDead),
                [&](const std::optional<std::string>& value, std::uint64_t revision) -> std::optional<std::string> {
                    if (value == locks::kLive && (revision == watched || revision == told))
                        return std::string(locks::kDead);
                    return std::nullopt;
                });
            const Result r = w.result;
            const std::string value = w.value.value_or(std::string());
            const std::uint64_t revision = w.revision;
            return std::function<void()>([=, this] {
                if (alive.expired() || r != Result::Ok) return;
                if (value == locks::kDead) {
                    ORVO_LOG(4, "ksd: cluster locks: ended the silent epoch " << k << "; freeing its locks");
                    return epochSeen(k, value, revision);
                }
                if (auto it = epochs_.find(k); it != epochs_.end()) it->second.leaderRevision = revision;
            });
        });
    }
    pollWhileTheWatchIsSilent();
    // Reaps that NATS did not take are asked again.
    for (const auto& [key, m] : mirror_)
        if (m.record.holder && dead_.count(m.record.holder->epoch) != 0) sendReap(key);
    // Next round when the first of the others' leases may pass: a dead node's locks wait no round longer.
    auto next = Clock::now() + std::max(lease_ / 5, std::chrono::milliseconds(20));
    for (const auto& [key, seen] : epochs_)
        if (seen.value == locks::kLive) next = std::min(next, seen.since + lease_ + std::chrono::milliseconds(1));
    othersTimer_.expires_at(next);
    onExpiry(othersTimer_, &ClusterLocks::checkOthers);
}

void ClusterLocks::saveHolds() {
    // Rewritten whole at each change: a node holds few locks at once.
    const std::filesystem::path tmp = stateFile_.string() + ".new";
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << "epoch " << (epoch_.empty() ? "-" : epoch_) << "\n";
        for (const auto& [handle, h] : holds_)
            out << handle << ' ' << h.claimId << ' ' << static_cast<long>(h.peer.pid) << ' '
                << static_cast<long>(h.peer.uid) << ' ' << h.startTime << ' ' << cluster::hexToken(h.name) << "\n";
        if (!out) {
            ORVO_LOG(1, "ksd: cluster locks: cannot write " << tmp.string());
            return;
        }
    }
    std::error_code ec;
    std::filesystem::rename(tmp, stateFile_, ec);
}

}  // namespace ksd
