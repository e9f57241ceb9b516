// Built without libnats: ksd serves its own host only.

#include <stdexcept>

#include "cluster/cluster_link.h"

namespace ksd {

std::unique_ptr<ClusterLink> connectCluster(asio::io_context&, const ClusterOptions&) {
    throw std::runtime_error("cluster: this ksd was built without NATS (libnats-dev)");
}

}  // namespace ksd
