#ifndef KSD_SERVICES_JOBSTATUS_JOB_STORE_H
#define KSD_SERVICES_JOBSTATUS_JOB_STORE_H

// The jobs' rows in the state database. Each write is one short
// transaction, committed before it returns; ids come from a stored counter
// so that an id is never handed out twice, across restarts included.
// Throws store::StoreError; a failed write changes nothing.

#include <cstdint>
#include <vector>

#include "services/jobstatus/job.h"
#include "store/database.h"

namespace ksd::jobs {

class JobStore {
public:
    explicit JobStore(store::Database& db) : db_(db) {}

    std::vector<Job> loadAll();
    // Stores `job` under the next id, which it returns (and sets in job.id).
    std::int64_t insert(Job& job);
    void updateProgress(std::int64_t id, std::int32_t progress, JobState state);
    void updateState(std::int64_t id, JobState state);
    void updateAppIds(std::int64_t id, const std::vector<std::int64_t>& appIds);
    void remove(std::int64_t id);
    // The last id handed out (0 before the first).
    std::int64_t lastId();

    // App ids are kept as one text column: "1,2,3".
    static std::string encodeAppIds(const std::vector<std::int64_t>& appIds);
    static std::vector<std::int64_t> decodeAppIds(const std::string& text);

private:
    store::Database& db_;
};

}  // namespace ksd::jobs

#endif
