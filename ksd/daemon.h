#ifndef KSD_DAEMON_H
#define KSD_DAEMON_H

// The whole daemon: one event loop, the registry of services (Notifier
// first, the others publish through it) and the server. Listens as soon as
// it is built; run() serves until stop(), which any thread may call.

#include <asio/io_context.hpp>
#include <atomic>
#include <cstdint>
#include <memory>

#include "cluster/cluster_link.h"
#include "daemon_options.h"
#include "server/server.h"
#include "services/notifier/notifier_service.h"
#include "services/registry.h"

namespace ksd {

class Daemon {
public:
    // Throws std::system_error when the pipe or port is taken,
    // std::filesystem::filesystem_error when the state directory cannot be made.
    explicit Daemon(DaemonOptions options);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Logs the "ready" line and serves until stop(). Call from one thread.
    void run();
    void stop();

    asio::io_context& io() { return io_; }
    const DaemonOptions& options() const { return options_; }
    std::uint16_t tcpPort() const { return server_->tcpPort(); }
    // Loop-only accessors (tests reach them through DaemonThread::onLoop).
    Registry& registry() { return registry_; }
    NotifierService& notifier() { return *notifier_; }
    std::size_t connectionCount() const { return server_->connectionCount(); }
    ClusterLink* cluster() { return cluster_.get(); }

private:
    void shutdown();

    DaemonOptions options_;
    asio::io_context io_{1};
    std::unique_ptr<ClusterLink> cluster_;  // null on one host; outlives the services that use it
    Registry registry_;
    NotifierService* notifier_ = nullptr;
    std::unique_ptr<Server> server_;
    bool shutDown_ = false;
};

}  // namespace ksd

#endif
