#ifndef KSD_SERVICES_SCHEDULER_SCHEDULER_SERVICE_H
#define KSD_SERVICES_SCHEDULER_SCHEDULER_SERVICE_H

// The "Scheduler" service: the eleven task requests of the client library,
// program and blob tasks kept in the state database, one timer for the
// earliest due task over an ordered index, programs run as their owners,
// and every state change published as "OrvoTSEvent:<handle>$".

#include <asio/io_context.hpp>
#include <asio/system_timer.hpp>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

#include "services/scheduler/program_runner.h"
#include "services/scheduler/scheduler_limits.h"
#include "services/scheduler/task.h"
#include "services/scheduler/task_store.h"
#include "services/service.h"
#include "store/database.h"

namespace ksd {

class SchedulerService final : public Service {
public:
    // The calendar's "now"; tests substitute their own.
    using Clock = std::function<std::time_t()>;

    // Opens the state database in `stateDir`, loads the tasks, runs boot
    // tasks and runs missed while the daemon was down (once each) as soon
    // as the loop runs. Throws store::StoreError.
    SchedulerService(asio::io_context& io, EventPublisher& events, const std::filesystem::path& stateDir,
                     SchedulerLimits limits = {}, Clock clock = {});
    ~SchedulerService() override;

    std::string_view name() const override { return "Scheduler"; }
    const FieldPlan* plan(std::string_view request) const override;
    void handle(Request& request) override;
    std::vector<StatusItem> status() const override;
    // "tasks" and "blob-tasks", paged by handle: the tasks `asker` may see, as JSON.
    std::string queryFor(std::string_view what, const PeerInfo& asker) const override;

private:
    using Due = std::pair<std::time_t, std::int64_t>;

    void schedule(Request& request);
    void scheduleBlob(Request& request);
    // The new task's handle, or the negative error that refused it.
    std::int64_t add(sched::Task task, std::string_view blob = {});
    void account(const sched::Task& task, int sign);
    void list(Request& request, sched::TaskKind kind);
    sched::Task* visible(const PeerInfo& peer, std::int64_t handle, std::int64_t& error);

    void setDue(sched::Task& task, std::optional<std::time_t> due);
    void arm();
    void onTimer();
    void run(sched::Task& task, std::time_t now);
    void programEnded(std::int64_t handle, uid_t owner, const sched::RunResult& result);
    // Ends a run that never reached its program: state cExit, the reason kept and logged.
    void failedStart(sched::Task& task, const std::string& reason);
    void afterRun(sched::Task& task);
    void setState(sched::Task& task, sched::TaskState state);
    void save(const sched::Task& task);
    // Keeps a task just cancelled, dropping the owner's oldest beyond the limit.
    void keepCancelled(std::int64_t owner, std::int64_t handle);

    EventPublisher& events_;
    Clock clock_;
    SchedulerLimits limits_;
    std::shared_ptr<store::Database> db_;
    std::unique_ptr<sched::TaskStore> store_;
    std::map<std::int64_t, sched::Task> tasks_;  // handle order, cancelled ones included
    std::unordered_map<std::string, std::int64_t> byName_;
    std::set<Due> due_;  // earliest first
    asio::system_timer timer_;
    sched::ProgramRunner runner_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();
    std::unordered_map<uid_t, std::size_t> runningBy_;  // programs running, per owner
    struct Usage {
        std::size_t tasks = 0;
        std::uint64_t bytes = 0;
    };
    std::unordered_map<std::int64_t, Usage> usage_;                           // live tasks per owner uid (-1: nobody)
    std::unordered_map<std::int64_t, std::deque<std::int64_t>> cancelledBy_;  // oldest first, per owner
    std::int64_t runs_ = 0, skipped_ = 0;
    FieldPlan schedulePlan_, blobPlan_, namePlan_, handlePlan_, infoPlan_, emptyPlan_;
};

}  // namespace ksd

#endif
