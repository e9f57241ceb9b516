#include "services/jobstatus/job_store.h"

#include <cstdlib>

#include "OrvoLogging.h"
#include "store/counters.h"
#include "store/store_error.h"

namespace ksd::jobs {

namespace {

constexpr const char* kAppliedSeq = "applied_progress_seq";
// Bounds the log and the memory it mirrors when nothing else applies it.
constexpr std::size_t kMaxLogged = 4096;

}  // namespace

JobStore::JobStore(store::Database& db, const std::filesystem::path& progressLog) : db_(db) {
    if (progressLog.empty()) return;
    log_ = std::make_unique<ProgressLog>(progressLog);
    const std::int64_t applied = store::counterValue(db_, kAppliedSeq);
    nextSeq_ = applied + 1;
    // Records up to `applied` reached the database before the log was emptied.
    for (const ProgressLog::Record& r : log_->takeRecordsAtOpen()) {
        if (r.seq <= applied) continue;
        logged_.push_back(r);
        nextSeq_ = r.seq + 1;
    }
    if (logged_.empty())
        log_->clear();
    else
        applyLogged();
}

JobStore::~JobStore() = default;

void JobStore::applyLogged() {
    if (logged_.empty()) return;
    store::Transaction t(db_);
    for (const ProgressLog::Record& r : logged_)
        db_.cached("UPDATE jobs SET progress = ?2, state = ?3 WHERE id = ?1")
            .bind(1, r.jobId)
            .bind(2, std::int64_t{r.progress})
            .bind(3, std::int64_t{r.state})
            .run();
    store::setCounter(db_, kAppliedSeq, logged_.back().seq);
    t.commit();
    logged_.clear();
    log_->clear();
}

std::string_view stateName(JobState state) {
    switch (state) {
        case JobState::Running: return "running";
        case JobState::Completed: return "completed";
        case JobState::Cancelled: return "cancelled";
    }
    return "unknown";
}

std::vector<Job> JobStore::loadAll() {
    auto& s = db_.cached("SELECT id, name, description, progress, state, owner_uid, app_ids FROM jobs ORDER BY id");
    std::vector<Job> jobs;
    while (s.step()) {
        Job j;
        j.id = s.columnInt(0);
        j.name = s.columnText(1);
        j.description = s.columnText(2);
        j.progress = static_cast<std::int32_t>(s.columnInt(3));
        j.state = static_cast<JobState>(s.columnInt(4));
        j.owner = static_cast<uid_t>(s.columnInt(5));
        j.appIds = decodeAppIds(s.columnText(6));
        jobs.push_back(std::move(j));
    }
    s.reset();
    return jobs;
}

std::int64_t JobStore::lastId() {
    auto& s = db_.cached("SELECT value FROM counters WHERE name = 'last_job_id'");
    const std::int64_t id = s.step() ? s.columnInt(0) : 0;
    s.reset();
    return id;
}

std::int64_t JobStore::insert(Job& job) {
    applyLogged();
    store::Transaction t(db_);
    db_.cached("UPDATE counters SET value = value + 1 WHERE name = 'last_job_id'").run();
    const std::int64_t id = lastId();
    db_.cached(
           "INSERT INTO jobs(id, name, description, progress, state, owner_uid, app_ids) "
           "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)")
        .bind(1, id)
        .bind(2, std::string_view(job.name))
        .bind(3, std::string_view(job.description))
        .bind(4, std::int64_t{job.progress})
        .bind(5, static_cast<std::int64_t>(job.state))
        .bind(6, static_cast<std::int64_t>(job.owner))
        .bind(7, std::string_view(encodeAppIds(job.appIds)))
        .run();
    t.commit();
    job.id = id;
    return id;
}

void JobStore::updateProgress(std::int64_t id, std::int32_t progress, JobState state) {
    if (log_) {
        const ProgressLog::Record r{nextSeq_, id, progress, static_cast<std::int32_t>(state)};
        log_->append(r);
        ++nextSeq_;
        logged_.push_back(r);
        // The change is stored; a failure here only leaves it in the log.
        if (logged_.size() >= kMaxLogged) {
            try {
                applyLogged();
            } catch (const store::StoreError& e) {
                ORVO_LOG(1, "ksd: JobStatus: progress log not applied: " << e.what());
            }
        }
        return;
    }
    db_.cached("UPDATE jobs SET progress = ?2, state = ?3 WHERE id = ?1")
        .bind(1, id)
        .bind(2, std::int64_t{progress})
        .bind(3, static_cast<std::int64_t>(state))
        .run();
}

// Every other change applies the log first: replayed after it, an older
// progress record would undo it (a cancelled job running again).
void JobStore::updateState(std::int64_t id, JobState state) {
    applyLogged();
    db_.cached("UPDATE jobs SET state = ?2 WHERE id = ?1").bind(1, id).bind(2, static_cast<std::int64_t>(state)).run();
}

void JobStore::updateAppIds(std::int64_t id, const std::vector<std::int64_t>& appIds) {
    applyLogged();
    db_.cached("UPDATE jobs SET app_ids = ?2 WHERE id = ?1").bind(1, id).bind(2, encodeAppIds(appIds)).run();
}

void JobStore::remove(std::int64_t id) {
    applyLogged();
    db_.cached("DELETE FROM jobs WHERE id = ?1").bind(1, id).run();
}

std::string JobStore::encodeAppIds(const std::vector<std::int64_t>& appIds) {
    std::string text;
    for (std::size_t i = 0; i < appIds.size(); ++i) {
        if (i != 0) text.push_back(',');
        text += std::to_string(appIds[i]);
    }
    return text;
}

std::vector<std::int64_t> JobStore::decodeAppIds(const std::string& text) {
    std::vector<std::int64_t> ids;
    const char* p = text.c_str();
    while (*p != '\0') {
        char* end = nullptr;
        const long long v = std::strtoll(p, &end, 10);
        if (end == p) break;  // not a number: keep what was read
        ids.push_back(v);
        p = *end == ',' ? end + 1 : end;
    }
    return ids;
}

}  // namespace ksd::jobs
