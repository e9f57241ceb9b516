#ifndef KSD_SERVICES_SCHEDULER_TASK_H
#define KSD_SERVICES_SCHEDULER_TASK_H

// One scheduled task as the daemon keeps it: what to run (a program or a
// stored blob), when, whose it is, and what its runs have left behind.

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "services/scheduler/calendar.h"

namespace ksd::sched {

// The client library's tTaskState values.
enum class TaskState : std::int32_t { InProgress = 0, Completed = 1, Waiting = 2, Exit = -1 };
enum class TaskKind : std::int32_t { Program = 0, Blob = 1 };

const char* stateName(TaskState s);

struct Task {
    std::int64_t handle = 0;
    std::string name;
    TaskKind kind = TaskKind::Program;
    // false: stored by a TCP client whose owner was unknown (refused since), owned by no user.
    bool ownerKnown = true;
    uid_t owner = 0;
    std::string program, workDir, parameters, logFile;
    std::size_t blobSize = 0;  // the blob itself stays in the store until asked for
    Schedule schedule;
    TaskState state = TaskState::Waiting;
    std::optional<std::int64_t> exitCode;
    std::optional<std::time_t> lastRun;
    std::optional<std::time_t> nextDue;
    bool cancelled = false;
    // Why the last run that never reached its program failed; empty when none did.
    std::string lastFailure;
    // Not stored: the running program (a blob task "runs" in no time).
    pid_t pid = -1;

    // What the task costs its owner's quota: its strings and its blob.
    std::uint64_t storedBytes() const {
        return name.size() + program.size() + workDir.size() + parameters.size() + logFile.size() + blobSize;
    }
    Zone zone() const { return kind == TaskKind::Blob ? Zone::Gmt : Zone::Local; }
    bool running() const { return pid > 0; }
};

}  // namespace ksd::sched

#endif
