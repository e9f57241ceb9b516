#ifndef KSD_SERVICES_OPERATOR_OPERATOR_SERVICE_H
#define KSD_SERVICES_OPERATOR_OPERATOR_SERVICE_H

// The operator's questions to the running daemon ("status", "locks", "jobs",
// "subscriptions"): one request, one reply carrying the answer as JSON text.

#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "services/registry.h"
#include "services/service.h"

namespace ksd {

class OperatorService final : public Service {
public:
    static constexpr std::string_view kName = "KsdOperator";
    static constexpr std::string_view kQuery = "KSD_OP_QUERY";

    // Counters of the daemon itself (connections, ...), asked at each "status".
    using DaemonStatus = std::function<std::vector<StatusItem>()>;

    // `registry` holds the services asked; it outlives this service.
    OperatorService(const Registry& registry, DaemonStatus daemonStatus);

    std::string_view name() const override { return kName; }
    const FieldPlan* plan(std::string_view request) const override;
    void handle(Request& request) override;

    // The JSON answer, or empty when no service knows the query. With an
    // asker (a client's request): its connection is not counted in a status,
    // and listings show only what the asker may see.
    std::string answer(std::string_view query, const PeerInfo* asker = nullptr) const;

private:
    void answerStatus(Request& request);

    const Registry& registry_;
    DaemonStatus daemonStatus_;
    FieldPlan queryPlan_;
    std::time_t startTime_;
};

}  // namespace ksd

#endif
