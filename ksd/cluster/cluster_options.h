#ifndef KSD_CLUSTER_CLUSTER_OPTIONS_H
#define KSD_CLUSTER_CLUSTER_OPTIONS_H

// How a ksd joins a cluster: the NATS servers, the name every subject and
// bucket starts with, this node's name and the operator's credentials.
// No servers: no cluster, the daemon serves its host alone.

#include <chrono>
#include <string>
#include <vector>

namespace ksd {

struct ClusterOptions {
    std::vector<std::string> servers;  // nats://host:port, ...
    std::string name = "ks";           // a subject token: letters, digits, '-', '_'
    std::string node;                  // unique in the cluster; empty: the host name
    std::chrono::milliseconds lease{10000};
    std::string user, password;  // or
    std::string credsFile;
    std::string caFile;  // TLS with this CA
    // How long a write through the cluster may wait for NATS before it fails.
    std::chrono::milliseconds writeTimeout{3000};

    bool enabled() const { return !servers.empty(); }
};

}  // namespace ksd

#endif
