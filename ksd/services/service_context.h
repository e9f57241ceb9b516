#ifndef KSD_SERVICES_SERVICE_CONTEXT_H
#define KSD_SERVICES_SERVICE_CONTEXT_H

// What the daemon hands every service it builds: the one event loop, the
// event publisher (the Notifier), the state directory (exists, writable)
// and, on a cluster node, the link to the other nodes; and the limits the
// operator set.

#include <asio/io_context.hpp>
#include <filesystem>

#include "cluster/cluster_link.h"
#include "services/arbiter/arbiter_limits.h"
#include "services/jobstatus/job.h"
#include "services/scheduler/scheduler_limits.h"
#include "services/service.h"

namespace ksd {

struct ServiceContext {
    asio::io_context& io;
    EventPublisher& events;
    std::filesystem::path stateDir;
    SchedulerLimits scheduler;
    ClusterLink* cluster = nullptr;  // set when the node is in a cluster
    jobs::JobLimits jobLimits;
    ArbiterLimits arbiterLimits;
};

}  // namespace ksd

#endif
