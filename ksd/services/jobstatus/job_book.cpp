#include "services/jobstatus/job_book.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include "OrvoLogging.h"
#include "store/store_error.h"

namespace ksd::jobs {

namespace {

constexpr std::int64_t kStoreFailed = -EIO;

Outcome failed(const char* what, const store::StoreError& e) {
    ORVO_LOG(1, "ksd: JobStatus: " << what << " not stored: " << e.what());
    return Outcome{kStoreFailed, {}, {}};
}

}  // namespace

JobBook::JobBook(JobStore& store, JobLimits limits) : store_(store), limits_(limits), lastId_(store.lastId()) {
    for (Job& job : store_.loadAll()) {
        byName_[job.name] = job.id;
        ++perOwner_[job.owner];
        const std::int64_t id = job.id;
        byId_.emplace(id, std::move(job));
    }
}

const Job* JobBook::find(std::int64_t id) const {
    auto it = byId_.find(id);
    return it == byId_.end() ? nullptr : &it->second;
}

std::int64_t JobBook::changeable(std::int64_t id, uid_t caller, Job*& job) {
    auto it = byId_.find(id);
    if (it == byId_.end()) return -ENOENT;
    if (caller != 0 && caller != it->second.owner) return -EPERM;
    job = &it->second;
    return 0;
}

Outcome JobBook::create(std::string_view description, std::string_view name, uid_t owner) {
    if (name.empty() || name.find('\0') != std::string_view::npos) return Outcome{-EINVAL, {}, {}};
    if (byName_.count(std::string(name)) != 0) return Outcome{-EEXIST, {}, {}};
    // Clients see ids as 32-bit ints: stop before one would turn negative.
    const bool root = owner == 0;
    if (!root && perOwner_[owner] >= limits_.maxJobsPerUser) return Outcome{-EDQUOT, {}, {}};
    // One user filling the table leaves root room to act.
    const std::size_t cap = root ? limits_.maxJobs : limits_.maxJobs - std::min(limits_.rootReserve, limits_.maxJobs);
    if (byId_.size() >= cap || lastId_ >= std::numeric_limits<std::int32_t>::max()) return Outcome{-ENOSPC, {}, {}};
    Job job;
    job.name = std::string(name);
    job.description = std::string(description);
    job.owner = owner;
    try {
        store_.insert(job);
    } catch (const store::StoreError& e) {
        return failed("new job", e);
    }
    const std::int64_t id = job.id;
    lastId_ = id;
    byName_[job.name] = id;
    ++perOwner_[owner];
    Outcome out{id, job.name, {JobEvent::Created}};
    byId_.emplace(id, std::move(job));
    return out;
}

std::int64_t JobBook::lookup(std::string_view name) const {
    auto it = byName_.find(std::string(name));
    return it == byName_.end() ? -ENOENT : it->second;
}

Outcome JobBook::mapAppIds(std::int64_t id, std::vector<std::int64_t> appIds, uid_t caller) {
    Job* job = nullptr;
    if (std::int64_t r = changeable(id, caller, job); r != 0) return Outcome{r, {}, {}};
    try {
        store_.updateAppIds(id, appIds);
    } catch (const store::StoreError& e) {
        return failed("application ids", e);
    }
    job->appIds = std::move(appIds);
    return Outcome{0, job->name, {}};
}

Outcome JobBook::remove(std::int64_t id, uid_t caller) {
    Job* job = nullptr;
    if (std::int64_t r = changeable(id, caller, job); r != 0) return Outcome{r, {}, {}};
    try {
        store_.remove(id);
    } catch (const store::StoreError& e) {
        return failed("deletion", e);
    }
    Outcome out{0, job->name, {JobEvent::Exit}};
    if (auto owned = perOwner_.find(job->owner); owned != perOwner_.end() && --owned->second == 0)
        perOwner_.erase(owned);
    byName_.erase(job->name);
    byId_.erase(id);
    return out;
}

Outcome JobBook::setProgress(std::int64_t id, std::int64_t progress, uid_t caller) {
    if (progress < 0 || progress > 100) return Outcome{-EINVAL, {}, {}};
    Job* job = nullptr;
    if (std::int64_t r = changeable(id, caller, job); r != 0) return Outcome{r, {}, {}};
    // The worker learns that nobody waits for its result any more.
    if (job->state == JobState::Cancelled) return Outcome{-ECANCELED, {}, {}};
    const auto value = static_cast<std::int32_t>(progress);
    if (value == job->progress) return Outcome{0, job->name, {}};
    const JobState state = value == 100 ? JobState::Completed : JobState::Running;
    try {
        store_.updateProgress(id, value, state);
    } catch (const store::StoreError& e) {
        return failed("progress", e);
    }
    job->progress = value;
    job->state = state;
    Outcome out{0, job->name, {JobEvent::Updated}};
    if (state == JobState::Completed) out.events.push_back(JobEvent::Completed);
    return out;
}

std::int64_t JobBook::progress(std::int64_t id) const {
    const Job* job = find(id);
    return job == nullptr ? -ENOENT : job->progress;
}

Outcome JobBook::cancel(std::int64_t id, uid_t caller) {
    Job* job = nullptr;
    if (std::int64_t r = changeable(id, caller, job); r != 0) return Outcome{r, {}, {}};
    if (job->state == JobState::Cancelled) return Outcome{0, job->name, {}};
    try {
        store_.updateState(id, JobState::Cancelled);
    } catch (const store::StoreError& e) {
        return failed("cancellation", e);
    }
    job->state = JobState::Cancelled;
    return Outcome{0, job->name, {JobEvent::Cancelled}};
}

}  // namespace ksd::jobs
