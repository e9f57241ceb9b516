#include "services/jobstatus/cluster_jobs.h"

#include <cerrno>
#include <charconv>
#include <limits>

#include "cluster/cluster_wire.h"
#include "json/json_text.h"

namespace ksd::jobs {

namespace {

using Result = ClusterBucket::Result;

constexpr const char* kBucket = "jobs";
constexpr const char* kCounter = "counter";
constexpr std::int64_t kUnreachable = -EAGAIN;
// Compare-and-set rounds lost to other nodes before a write gives up.
constexpr int kMaxRounds = 64;

std::string jobKey(std::int64_t id) { return "job." + std::to_string(id); }
std::string nameKey(std::string_view name) { return "name." + cluster::hexToken(name); }

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

// -2 when the job is not there, -11 when NATS did not say, else 0.
std::int64_t load(ClusterBucket& b, std::int64_t id, StoredJob& s) {
    std::string value;
    const Result r = b.get(jobKey(id), value, s.revision);
    if (r == Result::NotFound) return -ENOENT;
    if (r != Result::Ok) return kUnreachable;
    return decode(value, s) ? 0 : -EIO;
}

// The next id: the counter advanced by one, by compare-and-set.
std::int64_t claimId(ClusterBucket& b) {
    for (int round = 0; round < kMaxRounds; ++round) {
        std::string value;
        std::uint64_t revision = 0, written = 0;
        Result r = b.get(kCounter, value, revision);
        if (r == Result::NotFound) {
            r = b.create(kCounter, "1", written);
            if (r == Result::Ok) return 1;
            if (r == Result::Exists) continue;
            return kUnreachable;
        }
        if (r != Result::Ok) return kUnreachable;
        const std::int64_t next = toInt(value) + 1;
        // Clients see ids as 32-bit ints: stop before one would turn negative.
        if (next > std::numeric_limits<std::int32_t>::max()) return -ENOSPC;
        r = b.update(kCounter, std::to_string(next), revision, written);
        if (r == Result::Ok) return next;
        if (r != Result::Conflict) return kUnreachable;
    }
    return kUnreachable;
}

// Takes `name` for job `id`: 0, -17 when a live job has it, -11.
std::int64_t claimName(ClusterBucket& b, const std::string& name, std::int64_t id) {
    const std::string key = nameKey(name);
    std::uint64_t revision = 0;
    for (int round = 0; round < kMaxRounds; ++round) {
        Result r = b.create(key, std::to_string(id), revision);
        if (r == Result::Ok) return 0;
        if (r != Result::Exists) return kUnreachable;
        // Taken, unless by a job that is gone (a create or delete cut short).
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

Outcome createIn(ClusterBucket& b, const std::string& description, const std::string& name, uid_t owner,
                 const std::string& node) {
    const std::int64_t id = claimId(b);
    if (id < 0) return Outcome{id, {}, {}};
    if (std::int64_t r = claimName(b, name, id); r != 0) return Outcome{r, {}, {}};
    StoredJob s;
    s.job.id = id;
    s.job.name = name;
    s.job.description = description;
    s.job.owner = owner;
    s.node = node;
    std::uint64_t revision = 0;
    if (b.create(jobKey(id), encode(s), revision) != Result::Ok) {
        b.erase(nameKey(name));  // a claim left behind is taken over by the next create
        return Outcome{kUnreachable, {}, {}};
    }
    return Outcome{id, name, {JobEvent::Created}};
}

// Reads job `id`, lets `change` decide (an Outcome with reply != 0 or no
// events stops there), and writes it back if nobody wrote in between.
template <typename Change>
Outcome changeIn(ClusterBucket& b, std::int64_t id, uid_t caller, Change change) {
    for (int round = 0; round < kMaxRounds; ++round) {
        StoredJob s;
        if (std::int64_t r = load(b, id, s); r != 0) return Outcome{r, {}, {}};
        if (caller != 0 && caller != s.job.owner) return Outcome{-EPERM, {}, {}};
        Outcome out = change(s.job);
        if (out.reply != 0 || out.events.empty()) return out;
        std::uint64_t written = 0;
        const Result r = b.update(jobKey(id), encode(s), s.revision, written);
        if (r == Result::Ok) return out;
        if (r != Result::Conflict) return Outcome{kUnreachable, {}, {}};
    }
    return Outcome{kUnreachable, {}, {}};
}

}  // namespace

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
    run([=, node = link_.node()](ClusterBucket& b) { return createIn(b, description, name, owner, node); },
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
        [=](ClusterBucket& b) {
            Outcome out = changeIn(b, id, caller, [&](Job& job) {
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
        [=](ClusterBucket& b) {
            StoredJob s;
            if (std::int64_t r = load(b, id, s); r != 0) return Outcome{r, {}, {}};
            if (caller != 0 && caller != s.job.owner) return Outcome{-EPERM, {}, {}};
            if (b.erase(jobKey(id)) != Result::Ok) return Outcome{kUnreachable, {}, {}};
            b.erase(nameKey(s.job.name));  // left behind, the name is taken over by the next create
            return Outcome{0, s.job.name, {JobEvent::Exit}};
        },
        std::move(done));
}

void ClusterJobs::setProgress(std::int64_t id, std::int64_t progress, uid_t caller, Done done) {
    run(
        [=](ClusterBucket& b) {
            return changeIn(b, id, caller, [&](Job& job) {
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
        [=](ClusterBucket& b) {
            return changeIn(b, id, caller, [&](Job& job) {
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
