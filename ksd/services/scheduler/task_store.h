#ifndef KSD_SERVICES_SCHEDULER_TASK_STORE_H
#define KSD_SERVICES_SCHEDULER_TASK_STORE_H

// The tasks' rows in the state database, blobs included. Every write is
// committed before it returns; handles come from a stored counter, so a
// handle is never handed out twice, across restarts included.
// Throws store::StoreError; a failed write changes nothing.

#include <cstdint>
#include <vector>

#include "services/scheduler/task.h"
#include "store/database.h"

namespace ksd::sched {

class TaskStore {
public:
    // Creates the scheduler's table and counter when missing.
    explicit TaskStore(store::Database& db);

    // Every task, blobs left in the store (their sizes are loaded).
    std::vector<Task> loadAll();
    // Stores `task` and its `blob` under the next handle, which it returns (and sets in task.handle).
    std::int64_t insert(Task& task, std::string_view blob = {});
    // Writes what changes over a task's life: state, runs, next time, failure,
    // cancellation (which drops the blob and the strings).
    void update(const Task& task);
    void erase(std::int64_t handle);
    std::string blob(std::int64_t handle);
    std::int64_t lastHandle();

private:
    store::Database& db_;
};

}  // namespace ksd::sched

#endif
