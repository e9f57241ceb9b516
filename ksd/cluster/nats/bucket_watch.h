#ifndef KSD_CLUSTER_NATS_BUCKET_WATCH_H
#define KSD_CLUSTER_NATS_BUCKET_WATCH_H

// A watch of every key of one bucket on a thread of its own: each entry
// NATS pushes is handed to the loop. After the connection came back, or
// when nothing came for `silence` (its consumer may have gone with a server
// while this connection stayed up), the watch is made again, which replays
// the keys as they are.

#include <nats/nats.h>

#include <asio/io_context.hpp>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "cluster/cluster_link.h"

namespace ksd::cluster {

class BucketWatch {
public:
    // `nc` outlives the watch. `name` is the bucket's full name.
    BucketWatch(asio::io_context& io, natsConnection* nc, std::string name, std::chrono::milliseconds silence,
                std::function<void(ClusterEntry&)> onEntry);
    // Stops and joins; entries already handed to the loop are still delivered.
    ~BucketWatch();
    BucketWatch(const BucketWatch&) = delete;
    BucketWatch& operator=(const BucketWatch&) = delete;

private:
    void loop();

    asio::io_context& io_;
    natsConnection* nc_;
    const std::string name_;
    const std::chrono::milliseconds silence_;
    std::function<void(ClusterEntry&)> onEntry_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace ksd::cluster

#endif
