#include "services/arbiter/lock_record.h"

#include <algorithm>
#include <charconv>

#include "cluster/cluster_wire.h"

namespace ksd::locks {

namespace {

using Result = ClusterBucket::Result;

std::int64_t toInt(std::string_view text) {
    std::int64_t v = 0;
    std::from_chars(text.data(), text.data() + text.size(), v);
    return v;
}

void putClaim(std::string& out, const Claim& c) {
    for (const std::string& f : {c.node, c.epoch, std::to_string(c.id), std::to_string(c.pid), std::to_string(c.uid)})
        cluster::putField(out, f);
}

bool takeClaim(std::string_view& in, Claim& c) {
    std::string f[5];
    for (std::string& field : f)
        if (!cluster::takeField(in, field)) return false;
    c.node = std::move(f[0]);
    c.epoch = std::move(f[1]);
    c.id = static_cast<std::uint64_t>(toInt(f[2]));
    c.pid = toInt(f[3]);
    c.uid = toInt(f[4]);
    return true;
}

bool isDead(const Claim& c, const DeadEpochs& dead) { return dead.count(c.epoch) != 0; }

// Hands the lock on to the first live waiter, or frees it; `base` is the
// revision the write is made over, the new holder's handle.
void handOn(LockRecord& r, std::int32_t code, const DeadEpochs& dead, std::uint64_t base) {
    std::erase_if(r.queue, [&](const Claim& c) { return isDead(c, dead); });
    r.lastCode = code;
    r.holder.reset();
    r.handle = 0;
    if (r.queue.empty()) return;
    r.holder = std::move(r.queue.front());
    r.handle = base;
    r.queue.erase(r.queue.begin());
}

// The claims `before` held that `after` does not.
std::vector<Claim> removedBetween(LockRecord before, const LockRecord& after) {
    std::vector<Claim> removed;
    if (before.holder) before.queue.push_back(*before.holder);
    for (const Claim& c : before.queue)
        if (!holdsClaim(after, c)) removed.push_back(c);
    return removed;
}

// Reads the record, lets `change(record, revision)` edit it (false: leave
// it) and writes it over that revision, again and again while others' writes
// to the record come first. An absent record is an empty one.
template <typename Change>
Written rewrite(ClusterBucket& b, const std::string& key, Change change) {
    Written w;
    const KeyWritten k =
        rewriteKey(b, key, encodeRecord(LockRecord{}),
                   [&](const std::optional<std::string>& value, std::uint64_t revision) -> std::optional<std::string> {
                       if (!value || !decodeRecord(*value, w.record)) w.record = LockRecord{};
                       const LockRecord before = w.record;
                       if (!change(w.record, revision)) return std::nullopt;
                       ++w.record.version;
                       w.removed = removedBetween(before, w.record);
                       return encodeRecord(w.record);
                   });
    w.result = k.result;
    w.wrote = k.wrote;
    if (!w.wrote) w.removed.clear();
    return w;
}

}  // namespace

std::string encodeRecord(const LockRecord& r) {
    std::string out;
    cluster::putField(out, std::to_string(r.version));
    cluster::putField(out, std::to_string(r.handle));
    cluster::putField(out, std::to_string(r.lastCode));
    cluster::putField(out, r.holder ? "1" : "");
    if (r.holder) putClaim(out, *r.holder);
    cluster::putField(out, std::to_string(r.queue.size()));
    for (const Claim& c : r.queue) putClaim(out, c);
    return out;
}

bool decodeRecord(std::string_view in, LockRecord& r) {
    std::string f;
    r = LockRecord{};
    if (!cluster::takeField(in, f)) return false;
    r.version = static_cast<std::uint64_t>(toInt(f));
    if (!cluster::takeField(in, f)) return false;
    r.handle = static_cast<std::uint64_t>(toInt(f));
    if (!cluster::takeField(in, f)) return false;
    r.lastCode = static_cast<std::int32_t>(toInt(f));
    if (!cluster::takeField(in, f)) return false;
    if (!f.empty()) {
        r.holder.emplace();
        if (!takeClaim(in, *r.holder)) return false;
    }
    if (!cluster::takeField(in, f)) return false;
    const std::int64_t n = toInt(f);
    for (std::int64_t i = 0; i < n; ++i)
        if (!takeClaim(in, r.queue.emplace_back())) return false;
    return in.empty();
}

std::string recordKey(std::string_view resource) { return "r." + cluster::hexToken(resource); }

std::string resourceOfKey(std::string_view key) {
    if (!key.starts_with("r.")) return {};
    return cluster::fromHexToken(key.substr(2)).value_or(std::string());
}

std::string epochKey(std::string_view node, std::string_view epoch) {
    return "n." + cluster::hexToken(node) + "." + std::string(epoch);
}

std::string placesKey(std::int64_t uid) { return "u." + std::to_string(uid); }

ClusterBucket::Result placeIn(ClusterBucket& b, OwedPlaces& owed, std::int64_t uid, std::size_t limit, bool& full) {
    full = false;
    if (auto it = owed.byUser.find(uid); it != owed.byUser.end() && it->second > 0) {
        owe(owed, uid, -1);
        return Result::Ok;
    }
    const auto change = [&](const std::optional<std::string>& value, std::uint64_t) -> std::optional<std::string> {
        const std::int64_t n = value ? toInt(*value) : 0;
        full = n >= static_cast<std::int64_t>(limit);
        return full ? std::nullopt : std::optional<std::string>(std::to_string(n + 1));
    };
    return rewriteKey(b, placesKey(uid), "0", change).result;
}

namespace {

// Adds `places` (of any sign) to the user's count, whatever the limit, never below 0.
Result shiftPlacesIn(ClusterBucket& b, std::int64_t uid, std::int64_t places) {
    return rewriteKey(b, placesKey(uid), "0",
                      [places](const std::optional<std::string>& value, std::uint64_t) {
                          const std::int64_t n = value ? toInt(*value) : 0,
                                             next = std::max<std::int64_t>(n + places, 0);
                          return next != n ? std::optional<std::string>(std::to_string(next)) : std::nullopt;
                      })
        .result;
}

}  // namespace

void giveBackIn(ClusterBucket& b, OwedPlaces& owed) {
    for (auto it = owed.byUser.begin(); it != owed.byUser.end();) {
        if (shiftPlacesIn(b, it->first, -it->second) == Result::Ok)
            it = owed.byUser.erase(it);
        else
            ++it;
    }
}

bool holdsClaim(const LockRecord& r, const Claim& claim) {
    return (r.holder && r.holder->same(claim)) ||
           std::any_of(r.queue.begin(), r.queue.end(), [&](const Claim& c) { return c.same(claim); });
}

namespace {

// What a lock request does to the record at revision `base`; false: nothing.
bool lockChange(LockRecord& r, std::uint64_t base, const Claim& claim, bool tryOnly, const DeadEpochs& dead) {
    if (holdsClaim(r, claim)) return false;
    bool changed = false;
    if (r.holder && isDead(*r.holder, dead)) {
        handOn(r, -1, dead, base);
        changed = true;
    } else if (!r.holder && !r.queue.empty()) {
        handOn(r, r.lastCode, dead, base);  // (a queue behind a free lock is one whose hand-over was cut short)
        changed = true;
    }
    if (!r.holder) {
        r.holder = claim;
        r.handle = base;
        return true;
    }
    if (tryOnly) return changed;
    r.queue.push_back(claim);
    return true;
}

}  // namespace

Written lockIn(ClusterBucket& b, const std::string& key, const Claim& claim, bool tryOnly, const DeadEpochs& dead) {
    return rewrite(b, key,
                   [&](LockRecord& r, std::uint64_t base) { return lockChange(r, base, claim, tryOnly, dead); });
}

namespace {

// placeAndLockIn, but a claim that did not go in keeps its place.
Written placeThenLockIn(ClusterBucket& b, OwedPlaces& owed, const std::string& key, const Claim& claim, bool tryOnly,
                        const DeadEpochs& dead, std::size_t limit) {
    std::string places, value;
    std::uint64_t placesAt = 0, recordAt = 0;
    LockRecord before;
    bool batched = owed.byUser.count(claim.uid) == 0 && b.known(placesKey(claim.uid), places, placesAt) &&
                   toInt(places) < static_cast<std::int64_t>(limit) && b.known(key, value, recordAt) &&
                   decodeRecord(value, before);
    LockRecord after = before;
    batched = batched && lockChange(after, recordAt, claim, tryOnly, dead);
    bool placed = false;
    if (batched) {
        // Both writes over the keys as this node last had them, in one round trip.
        ++after.version;
        std::vector<ClusterBucket::Write> writes{{placesKey(claim.uid), std::to_string(toInt(places) + 1), placesAt},
                                                 {key, encodeRecord(after), recordAt}};
        b.write(writes);
        placed = writes[0].result == Result::Ok;
        if (writes[1].result == Result::Ok) {
            Written w;
            w.result = Result::Ok;
            w.wrote = true;
            w.record = std::move(after);
            w.removed = removedBetween(std::move(before), w.record);
            w.placed = true;
            if (placed) return w;
            // The claim is in but the count moved on: its place is taken now (owed
            // to the count while NATS does not say), and when that would go past the
            // limit, taken all the same and the claim taken out again.
            bool full = false;
            const Result r = placeIn(b, owed, claim.uid, limit, full);
            if (r == Result::Ok && !full) return w;
            if (r != Result::Ok || shiftPlacesIn(b, claim.uid, 1) != Result::Ok) owe(owed, claim.uid, -1);
            if (r != Result::Ok) return w;
            Written out = leaveIn(b, key, claim, dead);
            out.full = true;
            return out;
        }
        // The record moved on (or NATS did not say): the claim as usual, with the place if it was taken.
    }
    Written w;
    if (!placed && ((w.result = placeIn(b, owed, claim.uid, limit, w.full)) != Result::Ok || w.full)) return w;
    w = lockIn(b, key, claim, tryOnly, dead);
    w.placed = true;
    return w;
}

}  // namespace

Written placeAndLockIn(ClusterBucket& b, OwedPlaces& owed, const std::string& key, const Claim& claim, bool tryOnly,
                       const DeadEpochs& dead, std::size_t limit) {
    Written w = placeThenLockIn(b, owed, key, claim, tryOnly, dead, limit);
    // A claim that did not go in gives its place back at once.
    if (w.placed && !w.full && w.result == Result::Ok && !holdsClaim(w.record, claim)) {
        unplace(owed, claim.uid);
        w.placed = false;
    }
    return w;
}

Written releaseIn(ClusterBucket& b, const std::string& key, std::uint64_t handle, std::int32_t code,
                  const DeadEpochs& dead) {
    return rewrite(b, key, [&](LockRecord& r, std::uint64_t base) {
        if (!r.holder || r.handle != handle) return false;
        handOn(r, code, dead, base);
        return true;
    });
}

Written leaveIn(ClusterBucket& b, const std::string& key, const Claim& claim, const DeadEpochs& dead) {
    return rewrite(b, key, [&](LockRecord& r, std::uint64_t base) {
        if (r.holder && r.holder->same(claim)) {
            handOn(r, 0, dead, base);
            return true;
        }
        return std::erase_if(r.queue, [&](const Claim& c) { return c.same(claim); }) != 0;
    });
}

Written readIn(ClusterBucket& b, const std::string& key) {
    return rewrite(b, key, [](LockRecord&, std::uint64_t) { return false; });
}

Written reapIn(ClusterBucket& b, const std::string& key, const DeadEpochs& dead) {
    return rewrite(b, key, [&](LockRecord& r, std::uint64_t base) {
        if (r.holder && isDead(*r.holder, dead)) {
            handOn(r, -1, dead, base);
            return true;
        }
        return std::erase_if(r.queue, [&](const Claim& c) { return isDead(c, dead); }) != 0;
    });
}

}  // namespace ksd::locks
