#ifndef KSD_SERVICES_JOBSTATUS_JOB_BOOK_H
#define KSD_SERVICES_JOBSTATUS_JOB_BOOK_H

// The live jobs and the rules of every JobStatus request, independent of
// sockets: each operation answers the request's reply value and the events
// it causes. A change is written to the store first and applied in memory
// only once stored, so a failed write (-EIO) leaves everything as it was.
//
// Replies: an id or 0 on success; -1 the caller may not change the job;
// -2 no such job; -17 the name is taken by a live job; -22 invalid argument
// (progress outside 0..100, empty name, NUL byte in the name); -28 the job
// table is full (for anyone but root, short of its reserve); -122 the
// owner's quota is full; -125 progress reported for a cancelled job; -5 store failure.

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "services/jobstatus/job.h"
#include "services/jobstatus/job_store.h"

namespace ksd::jobs {

struct Outcome {
    std::int64_t reply = 0;
    std::string jobName;            // the job the events are about
    std::vector<JobEvent> events;   // to publish, in order
};

class JobBook {
public:
    // Loads the stored jobs. Throws store::StoreError.
    JobBook(JobStore& store, JobLimits limits = {});

    Outcome create(std::string_view description, std::string_view name, uid_t owner);
    std::int64_t lookup(std::string_view name) const;
    Outcome mapAppIds(std::int64_t id, std::vector<std::int64_t> appIds, uid_t caller);
    Outcome remove(std::int64_t id, uid_t caller);
    Outcome setProgress(std::int64_t id, std::int64_t progress, uid_t caller);
    std::int64_t progress(std::int64_t id) const;
    Outcome cancel(std::int64_t id, uid_t caller);

    std::size_t size() const { return byId_.size(); }
    const Job* find(std::int64_t id) const;
    // Jobs in id order.
    const std::map<std::int64_t, Job>& all() const { return byId_; }
    const JobLimits& limits() const { return limits_; }

private:
    // -2 / -1 for a job the caller cannot change, else 0 (and `job` set).
    std::int64_t changeable(std::int64_t id, uid_t caller, Job*& job);

    JobStore& store_;
    JobLimits limits_;
    std::int64_t lastId_ = 0;
    std::map<std::int64_t, Job> byId_;
    std::unordered_map<std::string, std::int64_t> byName_;
    std::unordered_map<uid_t, std::size_t> perOwner_;  // live jobs of each owner
};

}  // namespace ksd::jobs

#endif
