#ifndef KSD_SERVICES_JOBSTATUS_JOBSTATUS_SERVICE_H
#define KSD_SERVICES_JOBSTATUS_JOBSTATUS_SERVICE_H

// The "JobStatus" service: the eight job requests of the client library,
// jobs kept in the state database (they survive restarts), and the events
// "OrvoJSEvent:<name>$" for every change. A TCP client (no identity) may
// read jobs but not create or change them (EACCES).

#include <asio/steady_timer.hpp>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "services/jobstatus/cluster_jobs.h"
#include "services/jobstatus/job_book.h"
#include "services/jobstatus/job_lister.h"
#include "services/jobstatus/job_store.h"
#include "services/service.h"
#include "store/database.h"

namespace ksd {

class JobStatusService final : public Service {
public:
    // Opens (or creates) the database in `stateDir`; job list pages are
    // answered through `io`. Throws store::StoreError.
    JobStatusService(asio::io_context& io, EventPublisher& events, const std::filesystem::path& stateDir,
                     jobs::JobLimits limits = {});
    ~JobStatusService() override;

    std::string_view name() const override { return "JobStatus"; }
    const FieldPlan* plan(std::string_view request) const override;
    void handle(Request& request) override;
    std::vector<StatusItem> status() const override;
    bool statusLater(std::function<void(std::vector<StatusItem>)> done) override;
    // "jobs" / "jobs>ID": a page of the live jobs in id order (those after
    // job ID) as a JSON array of objects, "[]" past the last. query() builds
    // it on the calling thread, answerLater() on the lister's worker.
    std::string query(std::string_view what) const override;
    bool answerLater(std::string_view what, const PeerInfo& asker,
                     const std::shared_ptr<Responder>& responder) override;

    const jobs::JobBook& book() const { return *book_; }
    // From now on jobs are the cluster's, kept in its replicated bucket; the
    // node's own database is no longer read or written.
    void useCluster(ClusterLink& link);

private:
    void publish(const jobs::Outcome& outcome);
    void answer(Responder& responder, const jobs::Outcome& outcome);
    jobs::ClusterJobs::Done answerLaterTo(const Request& request);
    // Progress reaches the database in batches, a short while after the log.
    void applySoon();
    void applyLogged() const;

    asio::io_context& io_;
    EventPublisher& events_;
    std::shared_ptr<store::Database> db_;
    std::unique_ptr<jobs::JobStore> store_;
    std::unique_ptr<jobs::JobBook> book_;
    std::unique_ptr<jobs::JobLister> lister_;
    std::unique_ptr<jobs::ClusterJobs> cluster_;
    asio::steady_timer applyTimer_;
    bool applyArmed_ = false;
    FieldPlan stringPlan_, twoStringPlan_, idPlan_, twoLongPlan_, emptyPlan_, mapPlan_;
};

}  // namespace ksd

#endif
