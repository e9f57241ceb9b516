#ifndef KSD_SERVICES_SERVICE_CONTEXT_H
#define KSD_SERVICES_SERVICE_CONTEXT_H

// What the daemon hands every service it builds: the one event loop, the
// event publisher (the Notifier) and the state directory (exists, writable).

#include <asio/io_context.hpp>
#include <filesystem>

#include "services/scheduler/scheduler_limits.h"
#include "services/service.h"

namespace ksd {

struct ServiceContext {
    asio::io_context& io;
    EventPublisher& events;
    std::filesystem::path stateDir;
    SchedulerLimits scheduler;
};

}  // namespace ksd

#endif
