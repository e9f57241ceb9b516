// A real three-server NATS cluster with JetStream for a test: servers on
// free loopback ports, their stores in the test's temporary folder. A server
// can be killed (SIGKILL) and started again on the same ports and store.
#ifndef KSTEST_NATS_CLUSTER_H
#define KSTEST_NATS_CLUSTER_H

#include <memory>
#include <string>
#include <vector>

#include "fake_daemon.h"
#include "ksd_process.h"

namespace kstest {

class NatsCluster {
public:
    // Starts every server and waits (bounded) until each takes clients.
    explicit NatsCluster(int servers = 3);
    bool up() const { return up_; }
    // "nats://127.0.0.1:P1,nats://127.0.0.1:P2,..." for ksd --cluster.
    std::string urls() const;
    std::string url(int server) const { return "nats://127.0.0.1:" + std::to_string(clientPorts_[server]); }
    void kill(int server);
    bool start(int server);
    void killAll() {
        for (std::size_t i = 0; i < servers_.size(); ++i) kill(static_cast<int>(i));
    }

private:
    ScopedTempDir dir_{"kstest-nats"};
    std::vector<int> clientPorts_, routePorts_;
    std::vector<std::unique_ptr<ChildProcess>> servers_;
    bool up_ = true;
};

}  // namespace kstest

#endif
