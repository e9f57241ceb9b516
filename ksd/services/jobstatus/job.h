#ifndef KSD_SERVICES_JOBSTATUS_JOB_H
#define KSD_SERVICES_JOBSTATUS_JOB_H

// One job as the daemon keeps it, the event codes its subscribers receive
// (the client library's tOrvoJSEEvent values) and the JobStatus limits.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "services/list_page.h"

namespace ksd::jobs {

// Stored as these numbers: never renumber.
enum class JobState : std::int32_t { Running = 0, Completed = 1, Cancelled = 2 };
std::string_view stateName(JobState state);

enum class JobEvent : std::int32_t { Completed = 0, Cancelled = 1, Created = 2, Updated = 3, Exit = -1 };

struct Job {
    std::int64_t id = 0;
    std::string name;
    std::string description;
    std::int32_t progress = 0;
    JobState state = JobState::Running;
    uid_t owner = 0;
    std::vector<std::int64_t> appIds;
};

struct JobLimits {
    std::size_t maxNameLength = 1024;
    std::size_t maxDescriptionLength = 64 * 1024;
    std::int64_t maxAppIds = 65536;     // per MAP_JOB request
    std::size_t maxJobs = 100000;       // live jobs, all users together
    std::size_t maxJobsPerUser = 10000; // live jobs of one user (root is exempt)
    std::size_t rootReserve = 1000;     // the last places of maxJobs, kept for root
    std::size_t listPageBytes = kListPageBytes;   // "jobs" answered in pages of about this size
};

}  // namespace ksd::jobs

#endif
