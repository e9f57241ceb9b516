#ifndef KSD_SERVICES_JOBSTATUS_CLUSTER_JOBS_H
#define KSD_SERVICES_JOBSTATUS_CLUSTER_JOBS_H

// Jobs kept in the cluster's replicated bucket instead of this node's
// database: the rules of JobBook, with ids and live names unique across the
// cluster. Each operation is done on the cluster's worker (round trips to
// the bucket) and answered through `done` on the loop; one that NATS cannot
// serve now answers -11 (EAGAIN) and changes nothing.
//
// Keys: "counter" (the last id reserved, advanced a block at a time by
// compare-and-set), "job.<id>" (the job and the node that made it),
// "name.<hex of the name>" (the id of the live job so named, made only when
// absent), "owner.<uid>" (the live jobs of a user other than root, for the
// per-user budget across the cluster).

#include <sys/types.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cluster/cluster_link.h"
#include "services/jobstatus/job_book.h"

namespace ksd::jobs {

// What the cluster's worker keeps between pieces of work.
struct Ledger;

class ClusterJobs {
public:
    using Done = std::function<void(Outcome)>;

    ClusterJobs(asio::io_context& io, ClusterLink& link, JobLimits limits);
    // Completions still on their way are dropped.
    ~ClusterJobs();

    void create(std::string description, std::string name, uid_t owner, Done done);
    void lookup(std::string name, Done done);
    void progress(std::int64_t id, Done done);
    void count(Done done);
    void mapAppIds(std::int64_t id, std::vector<std::int64_t> appIds, uid_t caller, Done done);
    void remove(std::int64_t id, uid_t caller, Done done);
    void setProgress(std::int64_t id, std::int64_t progress, uid_t caller, Done done);
    void cancel(std::int64_t id, uid_t caller, Done done);
    // A page of the job list after job `after`, as JSON, with each job's node.
    void page(std::int64_t after, std::function<void(std::string)> done);

private:
    template <typename Work, typename Finish>
    void run(Work work, Finish finish);
    // Opens the bucket, again every half second until it is.
    void open();

    ClusterLink& link_;
    JobLimits limits_;
    std::shared_ptr<Ledger> ledger_;
    asio::steady_timer openTimer_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();
};

}  // namespace ksd::jobs

#endif
