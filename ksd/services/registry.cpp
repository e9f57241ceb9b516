#include "services/registry.h"

#include <cerrno>
#include <stdexcept>
#include <string>

// One include per service.
#include "services/arbiter/arbiter_service.h"
#include "services/jobstatus/jobstatus_service.h"
#include "services/scheduler/scheduler_service.h"

namespace ksd {

Service& Registry::add(std::unique_ptr<Service> service) {
    if (!service) throw std::invalid_argument("Registry::add: null service");
    if (find(service->name()) != nullptr)
        throw std::logic_error("Registry::add: service '" + std::string(service->name()) + "' registered twice");
    services_.push_back(std::move(service));
    return *services_.back();
}

Service* Registry::find(std::string_view service) const {
    for (const auto& s : services_)
        if (s->name() == service) return s.get();
    return nullptr;
}

const FieldPlan* Registry::plan(std::string_view service, std::string_view request) const {
    Service* s = find(service);
    return s != nullptr ? s->plan(request) : nullptr;
}

void Registry::handle(Request& request) {
    Service* service = find(request.service);
    if (service == nullptr) return request.responder->fail(ENOSYS, "unknown service '" + request.service + "'");
    service->handle(request);
}

void Registry::clear() {
    while (!services_.empty()) services_.pop_back();
}

void registerServices(Registry& registry, ServiceContext& context) {
    // One line per service, e.g.
    //   registry.add(std::make_unique<ArbiterService>(context));
    auto arbiter = std::make_unique<ArbiterService>(context.io, context.events, context.arbiterLimits);
    arbiter->restoreFrom(std::make_unique<LockStore>(context.stateDir));
    if (context.cluster != nullptr) arbiter->useCluster(*context.cluster, context.stateDir);
    registry.add(std::move(arbiter));
    auto jobs = std::make_unique<JobStatusService>(context.io, context.events, context.stateDir, context.jobLimits);
    if (context.cluster != nullptr) jobs->useCluster(*context.cluster);
    registry.add(std::move(jobs));
    registry.add(std::make_unique<SchedulerService>(context.io, context.events, context.stateDir, context.scheduler));
}

}  // namespace ksd
