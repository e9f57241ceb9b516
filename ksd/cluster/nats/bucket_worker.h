#ifndef KSD_CLUSTER_NATS_BUCKET_WORKER_H
#define KSD_CLUSTER_NATS_BUCKET_WORKER_H

// The thread that does the cluster's blocking key-value calls, one piece of
// work at a time in the order handed in, so the event loop never waits for
// a replicated write. Each piece's completion goes back to the loop.

#include <nats/nats.h>

#include <asio/io_context.hpp>
#include <chrono>
#include <map>
#include <string>
#include <unordered_map>

#include "cluster/cluster_link.h"
#include "util/work_thread.h"

namespace ksd::cluster {

// Where the stream's answers to this worker's batched writes arrive, each
// under the number its write was sent with.
struct AckInbox {
    natsSubscription* sub = nullptr;  // "<inbox>.*", synchronous
    std::string prefix;               // "<inbox>."
    std::uint64_t next = 0;
    std::chrono::milliseconds timeout{0};
};

// Keys of a bucket as the worker last read or wrote them (a bounded few,
// possibly stale).
struct BucketMemory {
    struct Known {
        std::string value;
        std::uint64_t revision = 0;
    };
    std::unordered_map<std::string, Known> keys;
};

class BucketWorker {
public:
    // `nc` outlives the worker. Buckets are named "<prefix>-<name>".
    BucketWorker(asio::io_context& io, natsConnection* nc, std::string prefix, std::chrono::milliseconds timeout);
    // Stops and joins; work not begun yet is dropped, its completion never posted.
    ~BucketWorker();
    BucketWorker(const BucketWorker&) = delete;
    BucketWorker& operator=(const BucketWorker&) = delete;

    void run(const std::string& bucket, ClusterLink::BucketWork work);

private:
    struct Task {
        std::string bucket;
        ClusterLink::BucketWork work;
    };
    void handle(Task& task);
    // The open store of a bucket, made when missing; null when NATS did not answer.
    kvStore* open(const std::string& bucket);
    bool leaderReads(const std::string& name);

    asio::io_context& io_;
    natsConnection* nc_;
    const std::string prefix_;
    const std::chrono::milliseconds timeout_;
    jsCtx* js_ = nullptr;                         // worker only
    AckInbox acks_;                               // worker only
    std::map<std::string, kvStore*> open_;        // worker only
    std::map<std::string, BucketMemory> memory_;  // worker only
    WorkThread<Task> thread_;
};

}  // namespace ksd::cluster

#endif
