#include "daemon.h"

#include <asio/post.hpp>
#include <string>
#include <utility>

#include "OrvoLogging.h"
#include "services/operator/operator_service.h"
#include "services/service_context.h"
#include "state_dir.h"

namespace ksd {

Daemon::Daemon(DaemonOptions options) : options_(std::move(options)) {
    if (options_.stateDir.empty()) options_.stateDir = defaultStateDir();
    ensureStateDir(options_.stateDir);

    if (options_.cluster.enabled()) cluster_ = connectCluster(io_, options_.cluster);
    auto notifier = std::make_unique<NotifierService>(io_, options_.notifier);
    notifier->restoreFrom(std::make_unique<SubscriptionStore>(options_.stateDir));
    if (cluster_) notifier->joinCluster(*cluster_);
    notifier_ = notifier.get();
    registry_.add(std::move(notifier));
    ServiceContext context{io_,           *notifier_,      options_.stateDir, options_.scheduler, cluster_.get(),
                           options_.jobs, options_.arbiter};
    registerServices(registry_, context);

    registry_.add(std::make_unique<OperatorService>(registry_, [this]() -> std::vector<StatusItem> {
        // Where it keeps its state and where clients find it, as the operator asks first.
        std::vector<StatusItem> items{{"state_dir", 0, options_.stateDir.string()}, {"pipe", 0, options_.pipe}};
        if (options_.tcpPort >= 0) items.push_back({"tcp_port", server_->tcpPort()});
        items.push_back({"connections", static_cast<std::int64_t>(server_->connectionCount())});
        if (cluster_) {
            const ClusterState s = cluster_->state();
            items.push_back({"cluster_node", 0, cluster_->node()});
            items.push_back({"cluster_connected", s.connected ? 1 : 0});
            items.push_back({"cluster_server", 0, s.server});
            items.push_back({"cluster_nodes", s.nodes});
            items.push_back({"cluster_forwarded", s.forwarded});
            items.push_back({"cluster_received", s.received});
            items.push_back({"cluster_dropped", s.dropped});
        }
        return items;
    }));

    server_ = std::make_unique<Server>(io_, registry_, options_.server);
    server_->listenPipe(options_.pipe);
    if (options_.tcpPort >= 0) server_->listenTcp(static_cast<std::uint16_t>(options_.tcpPort));
    server_->start();
}

Daemon::~Daemon() {
    shutdown();
    // Let the cancelled operations finish while everything they touch exists.
    io_.restart();
    io_.poll();
    server_.reset();
    registry_.clear();
    io_.restart();
    io_.poll();
}

void Daemon::run() {
    const auto& limits = options_.server;
    ORVO_LOG(0, "ksd: ready, listening on pipe '"
                    << options_.pipe << "'"
                    << (options_.tcpPort >= 0 ? " and 127.0.0.1:" + std::to_string(server_->tcpPort()) : std::string())
                    << "; at most " << static_cast<unsigned long>(limits.maxConnections) << " connections ("
                    << static_cast<unsigned long>(limits.maxConnectionsPerUser) << " per user, "
                    << static_cast<unsigned long>(limits.rootReserve) << " kept for root)"
                    << (limits.descriptorLimit != 0
                            ? " under a descriptor limit of " + std::to_string(limits.descriptorLimit)
                            : std::string()));
    io_.run();
}

void Daemon::stop() {
    asio::post(io_, [this] {
        shutdown();
        io_.stop();
    });
}

void Daemon::shutdown() {
    if (shutDown_) return;
    shutDown_ = true;
    server_->stop();
    notifier_->shutdown();
    ORVO_LOG(9, "ksd: stopped serving");
}

}  // namespace ksd
