#include "services/jobstatus/cluster_jobs.h"

#include <cerrno>
#include <charconv>
#include <limits>
#include <unordered_map>

#include "cluster/bucket_cas.h"
#include "cluster/cluster_wire.h"
#include "json/json_text.h"

namespace ksd::jobs {

namespace {

using Result = ClusterBucket::Result;

constexpr const char* kBucket = "jobs";
constexpr const char* kCounter = "counter";
// The number of live jobs of every user together.
constexpr const char* kLive = "live";
// Ids reserved at a time; the most a node's stop leaves unused.
constexpr std::int64_t kIdBlock = 16;
// Counts (owners' and the cluster's) a node keeps between creates.
constexpr std::size_t kMaxCountsKnown = 4096;
// Jobs a node keeps as last written, small ones only: a change to one of
// them is a single round trip.
constexpr std::size_t kMaxJobsKnown = 1024;
constexpr std::size_t kMaxJobKnownBytes = 2048;
constexpr std::int64_t kUnreachable = -EAGAIN;
// Compare-and-set rounds lost to other nodes before a write gives up.
constexpr int kMaxRounds = 64;

std::string jobKey(std::int64_t id) { return "job." + std::to_string(id); }
std::string nameKey(std::string_view name) { return "name." + cluster::hexToken(name); }
std::string ownerKey(uid_t owner) { return "owner." + std::to_string(owner); }

std::int64_t toInt(std::string_view text) {
    std::int64_t v = 0;
    std::from_chars(text.data(), text.data() + text.size(), v);
    return v;
}

// A job as stored: its fields, each length-prefixed, numbers in decimal.
struct StoredJob {
    Job job;
    std::string node;
    std::uint64_t revision = 0;
};

std::string encode(const StoredJob& s) {
    std::string appIds;
    for (std::int64_t a : s.job.appIds) appIds += (appIds.empty() ? "" : ",") + std::to_string(a);
    std::string out;
    for (const std::string& f :
         {std::to_string(s.job.id), s.job.name, s.job.description, std::to_string(s.job.progress),
          std::to_string(static_cast<int>(s.job.state)), std::to_string(s.job.owner), s.node, appIds})
        cluster::putField(out, f);
    return out;
}

bool decode(std::string_view in, StoredJob& s) {
    std::string f[8];
    for (std::string& field : f)
        if (!cluster::takeField(in, field)) return false;
    s.job.id = toInt(f[0]);
    s.job.name = std::move(f[1]);
    s.job.description = std::move(f[2]);
    s.job.progress = static_cast<std::int32_t>(toInt(f[3]));
    s.job.state = static_cast<JobState>(toInt(f[4]));
    s.job.owner = static_cast<uid_t>(toInt(f[5]));
    s.node = std::move(f[6]);
    s.job.appIds.clear();
    for (std::size_t from = 0; from < f[7].size();) {
        const std::size_t comma = std::min(f[7].find(',', from), f[7].size());
        s.job.appIds.push_back(toInt(std::string_view(f[7]).substr(from, comma - from)));
        from = comma + 1;
    }
    return in.empty();
}

}  // namespace

// Touched on the cluster's worker only: the ids reserved and not yet handed
// out, live-job counts and jobs as last read or written here.
struct Ledger {
    struct Count {
        std::int64_t jobs = 0;
        std::uint64_t revision = 0;  // 0: never written
    };
    std::int64_t nextId = 0, endId = 0;
    std::unordered_map<std::string, Count> counts;  // by key
    std::unordered_map<std::int64_t, StoredJob> jobs;

    void remember(const StoredJob& s) {
        if (jobs.size() >= kMaxJobsKnown) jobs.clear();
        if (s.job.description.size() + s.job.name.size() <= kMaxJobKnownBytes) jobs[s.job.id] = s;
    }
};

namespace {

// -2 when the job is not there, -11 when NATS did not say, else 0.
std::int64_t load(ClusterBucket& b, std::int64_t id, StoredJob& s) {
    std::string value;
    const Result r = b.get(jobKey(id), value, s.revision);
    if (r == Result::NotFound) return -ENOENT;
    if (r != Result::Ok) return kUnreachable;
    return decode(value, s) ? 0 : -EIO;
}

// The next id, from the block this node reserved: the counter is advanced
// a block at a time by compare-and-set, so most creates never touch it.
// Ids left in a block when the node stops are gaps, never handed out.
std::int64_t claimId(ClusterBucket& b, Ledger& ledger) {
    if (ledger.nextId < ledger.endId) return ledger.nextId++;
    // Clients see ids as 32-bit ints: stop before one would turn negative.
    constexpr std::int64_t kMaxId = std::numeric_limits<std::int32_t>::max();
    std::int64_t last = 0, end = 0;
    // One write only is taken over each of the counter's revisions: no block is handed out twice.
    const KeyWritten w = rewriteKey(b, kCounter, "0", [&](const std::optional<std::string>& value, std::uint64_t) {
        last = value ? toInt(*value) : 0;
        end = std::min(last + kIdBlock, kMaxId);
        return last >= kMaxId ? std::nullopt : std::optional<std::string>(std::to_string(end));
    });
    if (w.result != Result::Ok) return kUnreachable;
    if (!w.wrote) return -ENOSPC;
    ledger.nextId = last + 2;
    ledger.endId = end + 1;
    return last + 1;
}

// A count of live jobs (an owner's, or the cluster's) as last read or
// written here; read again when unknown or `fresh`. False when NATS did not
// answer.
bool countOf(ClusterBucket& b, Ledger& ledger, const std::string& key, bool fresh, Ledger::Count& count) {
    auto it = ledger.counts.find(key);
    if (it != ledger.counts.end() && !fresh) return count = it->second, true;
    std::string value;
    count = {};
    const Result r = b.get(key, value, count.revision);
    if (r == Result::Ok)
        count.jobs = toInt(value);
    else if (r != Result::NotFound)
        return false;
    if (ledger.counts.size() >= kMaxCountsKnown) ledger.counts.clear();
    ledger.counts[key] = count;
    return true;
}

// Adds `delta` to a count. A count left one too high (NATS lost between a
// job's deletion and this) makes its limit reached a job early, never passed.
void recount(ClusterBucket& b, Ledger& ledger, const std::string& key, std::int64_t delta) {
    for (int round = 0; round < kMaxRounds; ++round) {
        Ledger::Count c;
        if (!countOf(b, ledger, key, round > 0, c)) return;
        const std::int64_t jobs = std::max<std::int64_t>(c.jobs + delta, 0);
        std::vector<ClusterBucket::Write> w{{key, std::to_string(jobs), c.revision}};
        b.write(w);
        if (w[0].result == Result::Ok) {
            ledger.counts[key] = {jobs, w[0].revision};
            return;
        }
        ledger.counts.erase(key);
        if (w[0].result != Result::Conflict && w[0].result != Result::Exists) return;
    }
}

// Takes over `name` for job `id` (already written) from a claim found in
// place: 0, -17 when a live job has it, -11.
std::int64_t claimName(ClusterBucket& b, const std::string& name, std::int64_t id) {
    const std::string key = nameKey(name);
    std::uint64_t revision = 0;
    for (int round = 0; round < kMaxRounds; ++round) {
        Result r = b.create(key, std::to_string(id), revision);
        if (r == Result::Ok) return 0;
        if (r != Result::Exists) return kUnreachable;
        // Taken, unless by a job that is gone: a job is written before its
        // name and deleted before it, so a claim without its job is stale.
        std::string holder;
        r = b.get(key, holder, revision);
        if (r == Result::NotFound) continue;
        if (r != Result::Ok) return kUnreachable;
        StoredJob s;
        const std::int64_t held = load(b, toInt(holder), s);
        if (held == 0 && s.job.name == name) return -EEXIST;
        if (held == kUnreachable) return kUnreachable;
        r = b.update(key, std::to_string(id), revision, revision);
        if (r == Result::Ok) return 0;
        if (r != Result::Conflict) return kUnreachable;
    }
    return kUnreachable;
}

// The counts, the job and its name in one round trip in the common case: the
// counts at the revisions last seen here, the job and name keys never
// written before.
Outcome createIn(ClusterBucket& b, Ledger& ledger, const JobLimits& limits, const std::string& description,
                 const std::string& name, uid_t owner, const std::string& node) {
    // What a create counts against: the owner's budget (root has none), then
    // the cluster's cap, whose last places are root's.
    struct Budget {
        std::string key;
        std::int64_t limit, refusal;
        Ledger::Count count;
    };
    std::vector<Budget> budgets;
    if (owner != 0) budgets.push_back({ownerKey(owner), static_cast<std::int64_t>(limits.maxJobsPerUser), -EDQUOT, {}});
    const std::size_t reserve = owner == 0 ? 0 : std::min(limits.rootReserve, limits.maxJobs);
    budgets.push_back({kLive, static_cast<std::int64_t>(limits.maxJobs - reserve), -ENOSPC, {}});
    const std::size_t n = budgets.size();
    for (int round = 0; round < kMaxRounds; ++round) {
        for (Budget& g : budgets) {
            if (!countOf(b, ledger, g.key, round > 0, g.count)) return Outcome{kUnreachable, {}, {}};
            // Full as known here: deletions on other nodes may have made room.
            if (g.count.jobs >= g.limit && round == 0 && !countOf(b, ledger, g.key, true, g.count))
                return Outcome{kUnreachable, {}, {}};
            if (g.count.jobs >= g.limit) return Outcome{g.refusal, {}, {}};
        }
        const std::int64_t id = claimId(b, ledger);
        if (id < 0) return Outcome{id, {}, {}};
        StoredJob s;
        s.job.id = id;
        s.job.name = name;
        s.job.description = description;
        s.job.owner = owner;
        s.node = node;
        std::vector<ClusterBucket::Write> w;
        for (const Budget& g : budgets) w.push_back({g.key, std::to_string(g.count.jobs + 1), g.count.revision});
        w.push_back({jobKey(id), encode(s), 0});
        w.push_back({nameKey(name), std::to_string(id), 0});
        b.write(w);
        const auto decided = [](Result r) { return r == Result::Ok || r == Result::Exists || r == Result::Conflict; };
        bool allCounted = true, countsDecided = true;
        for (std::size_t i = 0; i < n; ++i) {
            allCounted = allCounted && w[i].result == Result::Ok;
            countsDecided = countsDecided && decided(w[i].result);
            if (w[i].result == Result::Ok)
                ledger.counts[budgets[i].key] = {budgets[i].count.jobs + 1, w[i].revision};
            else
                ledger.counts.erase(budgets[i].key);
        }
        const Result job = w[n].result, claim = w[n + 1].result;
        std::int64_t reply = id;
        if (!countsDecided || job != Result::Ok || !decided(claim)) {
            reply = kUnreachable;
        } else if (!allCounted) {
            reply = 0;  // another node changed a count: again, counted afresh
        } else if (claim != Result::Ok) {
            if (const std::int64_t r = claimName(b, name, id); r != 0) reply = r;
        }
        if (reply > 0) {
            s.revision = w[n].revision;
            ledger.remember(s);
            return Outcome{id, name, {JobEvent::Created}};
        }
        // The name undone first: while its job is there, nobody takes it over.
        if (claim == Result::Ok) b.erase(nameKey(name));
        if (job == Result::Ok) b.erase(jobKey(id));
        for (std::size_t i = 0; i < n; ++i)
            if (w[i].result == Result::Ok) recount(b, ledger, budgets[i].key, -1);
        if (reply < 0) return Outcome{reply, {}, {}};
    }
    return Outcome{kUnreachable, {}, {}};
}

// Reads job `id`, lets `change` decide (an Outcome with reply != 0 or no
// events stops there), and writes it back if nobody wrote in between.
// Starts from the job as last written here when known: right, it costs one
// round trip; stale, the write conflicts (or `change` declines to write)
// and the job is read again.
template <typename Change>
Outcome changeIn(ClusterBucket& b, Ledger& ledger, std::int64_t id, uid_t caller, Change change) {
    for (int round = 0; round < kMaxRounds; ++round) {
        StoredJob s;
        const auto known = round == 0 ? ledger.jobs.find(id) : ledger.jobs.end();
        const bool guessed = known != ledger.jobs.end();
        if (guessed) {
            s = known->second;
        } else if (std::int64_t r = load(b, id, s); r != 0) {
            return Outcome{r, {}, {}};
        }
        // Nobody but root changes another's job, and a job's owner never changes.
        if (caller != 0 && caller != s.job.owner) return Outcome{-EPERM, {}, {}};
        Outcome out = change(s.job);
        if (out.reply != 0 || out.events.empty()) {
            if (guessed) continue;
            return out;
        }
        const Result r = b.update(jobKey(id), encode(s), s.revision, s.revision);
        if (r == Result::Ok) {
            ledger.remember(s);
            return out;
        }
        ledger.jobs.erase(id);
        if (r != Result::Conflict) return Outcome{kUnreachable, {}, {}};
    }
    return Outcome{kUnreachable, {}, {}};
}

}  // namespace

ClusterJobs::ClusterJobs(asio::io_context& io, ClusterLink& link, JobLimits limits)
    : link_(link), limits_(limits), ledger_(std::make_shared<Ledger>()), openTimer_(io) {
    open();
}

ClusterJobs::~ClusterJobs() {
    alive_.reset();
    openTimer_.cancel();
}

void ClusterJobs::open() {
    // Made (or opened) as the node starts, not by the first request, which
    // would wait most of a second for a new stream's election.
    run(
        [](ClusterBucket& b) {
            std::uint64_t last = 0;
            return b.lastRevision(last) == Result::Ok;
        },
        [this](bool opened) {
            if (opened) return;
            openTimer_.expires_after(std::chrono::milliseconds(500));
            openTimer_.async_wait([this, alive = std::weak_ptr<char>(alive_)](const std::error_code& ec) {
                if (!ec && !alive.expired()) open();
            });
        });
}

template <typename Work, typename Finish>
void ClusterJobs::run(Work work, Finish finish) {
    link_.runOnBucket(kBucket, [work = std::move(work), finish = std::move(finish),
                                alive = std::weak_ptr<char>(alive_)](ClusterBucket& b) mutable {
        auto result = work(b);
        return std::function<void()>([finish = std::move(finish), alive, result = std::move(result)]() mutable {
            if (!alive.expired()) finish(std::move(result));
        });
    });
}

void ClusterJobs::create(std::string description, std::string name, uid_t owner, Done done) {
    run([=, node = link_.node(), ledger = ledger_,
         limits = limits_](ClusterBucket& b) { return createIn(b, *ledger, limits, description, name, owner, node); },
        std::move(done));
}

void ClusterJobs::lookup(std::string name, Done done) {
    run(
        [name = std::move(name)](ClusterBucket& b) {
            std::string holder;
            std::uint64_t revision = 0;
            const Result r = b.get(nameKey(name), holder, revision);
            if (r != Result::Ok) return Outcome{r == Result::NotFound ? -ENOENT : kUnreachable, {}, {}};
            StoredJob s;
            const std::int64_t held = load(b, toInt(holder), s);
            if (held != 0) return Outcome{held, {}, {}};
            return Outcome{s.job.name == name ? s.job.id : -ENOENT, {}, {}};
        },
        std::move(done));
}

void ClusterJobs::progress(std::int64_t id, Done done) {
    run(
        [id](ClusterBucket& b) {
            StoredJob s;
            const std::int64_t r = load(b, id, s);
            return Outcome{r != 0 ? r : s.job.progress, {}, {}};
        },
        std::move(done));
}

void ClusterJobs::count(Done done) {
    run(
        [](ClusterBucket& b) {
            std::vector<std::string> keys;
            if (b.keys("job.", keys) != Result::Ok) return Outcome{kUnreachable, {}, {}};
            return Outcome{static_cast<std::int64_t>(keys.size()), {}, {}};
        },
        std::move(done));
}

void ClusterJobs::mapAppIds(std::int64_t id, std::vector<std::int64_t> appIds, uid_t caller, Done done) {
    run(
        [=, ledger = ledger_](ClusterBucket& b) {
            Outcome out = changeIn(b, *ledger, id, caller, [&](Job& job) {
                job.appIds = appIds;
                return Outcome{0, job.name, {JobEvent::Updated}};
            });
            out.events.clear();  // the mapping is no event of its own
            return out;
        },
        std::move(done));
}

void ClusterJobs::remove(std::int64_t id, uid_t caller, Done done) {
    run(
        [=, ledger = ledger_](ClusterBucket& b) {
            for (int round = 0; round < kMaxRounds; ++round) {
                StoredJob s;
                if (std::int64_t r = load(b, id, s); r != 0) return Outcome{r, {}, {}};
                if (caller != 0 && caller != s.job.owner) return Outcome{-EPERM, {}, {}};
                // The job, then its name if still its own: a claim that another
                // create took over once the job was gone is not touched.
                std::string holder;
                std::uint64_t named = 0;
                const Result r = b.get(nameKey(s.job.name), holder, named);
                if (r != Result::Ok && r != Result::NotFound) return Outcome{kUnreachable, {}, {}};
                std::vector<ClusterBucket::Write> w{{jobKey(id), {}, s.revision, true}};
                if (r == Result::Ok && toInt(holder) == id) w.push_back({nameKey(s.job.name), {}, named, true});
                b.write(w);
                if (w[0].result == Result::Conflict) continue;  // changed meanwhile: looked at again
                if (w[0].result != Result::Ok) return Outcome{kUnreachable, {}, {}};
                ledger->jobs.erase(id);
                if (s.job.owner != 0) recount(b, *ledger, ownerKey(s.job.owner), -1);
                recount(b, *ledger, kLive, -1);
                return Outcome{0, s.job.name, {JobEvent::Exit}};
            }
            return Outcome{kUnreachable, {}, {}};
        },
        std::move(done));
}

void ClusterJobs::setProgress(std::int64_t id, std::int64_t progress, uid_t caller, Done done) {
    run(
        [=, ledger = ledger_](ClusterBucket& b) {
            return changeIn(b, *ledger, id, caller, [&](Job& job) {
                if (job.state == JobState::Cancelled) return Outcome{-ECANCELED, {}, {}};
                const auto value = static_cast<std::int32_t>(progress);
                if (value == job.progress) return Outcome{0, job.name, {}};
                job.progress = value;
                job.state = value == 100 ? JobState::Completed : JobState::Running;
                Outcome out{0, job.name, {JobEvent::Updated}};
                if (job.state == JobState::Completed) out.events.push_back(JobEvent::Completed);
                return out;
            });
        },
        std::move(done));
}

void ClusterJobs::cancel(std::int64_t id, uid_t caller, Done done) {
    run(
        [=, ledger = ledger_](ClusterBucket& b) {
            return changeIn(b, *ledger, id, caller, [&](Job& job) {
                if (job.state == JobState::Cancelled) return Outcome{0, job.name, {}};
                job.state = JobState::Cancelled;
                return Outcome{0, job.name, {JobEvent::Cancelled}};
            });
        },
        std::move(done));
}

void ClusterJobs::page(std::int64_t after, std::function<void(std::string)> done) {
    const std::size_t pageBytes = limits_.listPageBytes;
    run(
        [after, pageBytes](ClusterBucket& b) {
            // Every id up to the counter, each read from the stream's leader: a
            // listing of keys can lag behind a write just acknowledged.
            std::string value;
            std::uint64_t revision = 0;
            const Result r = b.get(kCounter, value, revision);
            if (r != Result::Ok && r != Result::NotFound) return std::string();
            const std::int64_t last = r == Result::Ok ? toInt(value) : 0;
            std::string out = "[";
            for (std::int64_t id = after + 1; id <= last && (out.size() == 1 || out.size() < pageBytes); ++id) {
                StoredJob s;
                // Ids of deleted jobs and of creates that failed are gaps; a job not read fails the page.
                if (const std::int64_t r = load(b, id, s); r == -ENOENT)
                    continue;
                else if (r != 0)
                    return std::string();
                if (out.size() > 1) out.push_back(',');
                out += "{\"id\":" + std::to_string(s.job.id) + ",\"name\":";
                jsontext::appendString(out, s.job.name);
                out += ",\"description\":";
                jsontext::appendString(out, s.job.description);
                out += ",\"progress\":" + std::to_string(s.job.progress) + ",\"state\":";
                jsontext::appendString(out, stateName(s.job.state));
                out += ",\"owner_uid\":" + std::to_string(static_cast<std::int32_t>(s.job.owner)) + ",\"app_ids\":[";
                for (std::size_t i = 0; i < s.job.appIds.size(); ++i)
                    out += (i != 0 ? "," : "") + std::to_string(s.job.appIds[i]);
                out += "],\"node\":";
                jsontext::appendString(out, s.node);
                out += "}";
            }
            out.push_back(']');
            return out;
        },
        std::move(done));
}

}  // namespace ksd::jobs
