#ifndef KSD_DAEMON_OPTIONS_H
#define KSD_DAEMON_OPTIONS_H

// Everything a Daemon is built from: where it listens, where its state
// lives, and its limits (tests shrink them).

#include <filesystem>
#include <string>

#include "cluster/cluster_options.h"
#include "server/server_limits.h"
#include "services/arbiter/arbiter_limits.h"
#include "services/jobstatus/job.h"
#include "services/notifier/notifier_limits.h"
#include "services/scheduler/scheduler_limits.h"

namespace ksd {

inline constexpr const char* kDefaultPipeName = "osm_ks_shrsvc";

struct DaemonOptions {
    std::string pipe = kDefaultPipeName;  // abstract name, or a socket path when it holds a '/'
    int tcpPort = -1;                     // -1: no TCP; 0: any free port on 127.0.0.1
    std::filesystem::path stateDir;       // created when missing
    ServerLimits server;
    NotifierLimits notifier;
    ClusterOptions cluster{};  // no servers: this host alone
    SchedulerLimits scheduler{};
    jobs::JobLimits jobs{};
    ArbiterLimits arbiter{};
};

}  // namespace ksd

#endif
