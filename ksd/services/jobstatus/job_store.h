#ifndef KSD_SERVICES_JOBSTATUS_JOB_STORE_H
#define KSD_SERVICES_JOBSTATUS_JOB_STORE_H

// The jobs' rows in the state database. Each write is stored before it
// returns: progress in the progress log when there is one (applied to the
// database in batches), every other change as one short transaction. Ids come
// from a stored counter, so an id is never handed out twice, across restarts
// included. Throws store::StoreError; a failed write changes nothing.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "services/jobstatus/job.h"
#include "services/jobstatus/progress_log.h"
#include "store/database.h"

namespace ksd::jobs {

class JobStore {
public:
    // With `progressLog`, progress changes go to that file first; the ones a
    // previous run left unapplied are applied here.
    explicit JobStore(store::Database& db, const std::filesystem::path& progressLog = {});
    ~JobStore();

    std::vector<Job> loadAll();
    // Stores `job` under the next id, which it returns (and sets in job.id).
    std::int64_t insert(Job& job);
    void updateProgress(std::int64_t id, std::int32_t progress, JobState state);
    void updateState(std::int64_t id, JobState state);
    void updateAppIds(std::int64_t id, const std::vector<std::int64_t>& appIds);
    void remove(std::int64_t id);
    // Moves the logged progress changes into the database (one transaction).
    void applyLogged();
    bool hasLogged() const { return !logged_.empty(); }
    // The last id handed out (0 before the first).
    std::int64_t lastId();

    // App ids are kept as one text column: "1,2,3".
    static std::string encodeAppIds(const std::vector<std::int64_t>& appIds);
    static std::vector<std::int64_t> decodeAppIds(const std::string& text);

private:
    store::Database& db_;
    std::unique_ptr<ProgressLog> log_;
    std::vector<ProgressLog::Record> logged_;  // in the log, not yet in the database
    std::int64_t nextSeq_ = 1;
};

}  // namespace ksd::jobs

#endif
