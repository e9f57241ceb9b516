#ifndef KSD_SERVICES_SCHEDULER_SCHEDULER_LIMITS_H
#define KSD_SERVICES_SCHEDULER_SCHEDULER_LIMITS_H

// The Scheduler's bounds: what one user may store and run, and the resource
// limits its programs start with. Root is bound by none of the per-user ones.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "services/scheduler/program_runner.h"

namespace ksd {

struct SchedulerLimits {
    std::uint32_t maxBlobBytes = 1024 * 1024;
    std::uint32_t maxNameLength = 1024;
    // Paths (program, directory, log file) and the parameter string.
    std::size_t maxPathLength = 4096;  // PATH_MAX
    std::size_t maxParametersLength = 128 * 1024;
    // Tasks one user keeps (a TCP client counts as its socket's owner), and their stored
    // bytes: strings and blobs. Over either, scheduling answers -122.
    std::size_t maxTasksPerUser = 1000;
    std::uint64_t maxTaskBytesPerUser = 64u * 1024u * 1024u;
    // Cancelled tasks kept readable per user (root too), the most recently
    // cancelled; an older one is then forgotten (its handle answers -2).
    std::size_t cancelledKeptPerUser = 64;
    // Programs running at once, per user and in all; each costs the daemon
    // two descriptors, reserved at start. A due run over either is skipped.
    std::size_t maxProgramsPerUser = 64;
    std::size_t maxPrograms = 512;
    // Set in every program (empty: sched::loginLimits() when the service starts).
    std::vector<sched::ResourceLimit> programLimits;
    // ksd-exec (empty: beside the daemon's executable, else where it is installed).
    std::string execHelper;
};

}  // namespace ksd

#endif
