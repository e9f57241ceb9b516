#ifndef KSD_SERVICES_REGISTRY_H
#define KSD_SERVICES_REGISTRY_H

// Maps a service name to the Service that serves it, and (service, request)
// to the field plan the request parser follows; null means ENOSYS.

#include <memory>
#include <string_view>
#include <vector>

#include "protocol/request_catalog.h"
#include "services/service.h"
#include "services/service_context.h"

namespace ksd {

class Registry final : public RequestHandler {
public:
    // Takes ownership; a second service of the same name is a programming error (throws).
    Service& add(std::unique_ptr<Service> service);
    Service* find(std::string_view service) const;
    bool serves(std::string_view service) const override { return find(service) != nullptr; }
    const FieldPlan* plan(std::string_view service, std::string_view request) const override;
    void handle(Request& request) override;
    const std::vector<std::unique_ptr<Service>>& services() const { return services_; }
    // Destroys the services, last added first (they may use earlier ones).
    void clear();

private:
    std::vector<std::unique_ptr<Service>> services_;
};

// Builds every service except the Notifier (the daemon makes that one first,
// since the others publish through it). One line per service.
void registerServices(Registry& registry, ServiceContext& context);

}  // namespace ksd

#endif
