#ifndef KSD_CLUSTER_NATS_INBOX_H
#define KSD_CLUSTER_NATS_INBOX_H

// The hand-over from NATS's threads to the event loop: messages queue here,
// in arrival order and up to a bound (beyond it they are counted and
// dropped), and one posted handler at a time drains them on the loop. Once
// closed, nothing more is queued or posted, so the loop may go away.

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "cluster/cluster_link.h"

namespace ksd::cluster {

struct Arrival {
    bool heartbeat = false;
    ClusterTopic topic;
    std::string subject;
    std::string body;
};

class Inbox : public std::enable_shared_from_this<Inbox> {
public:
    using Sink = std::function<void(Arrival&)>;
    Inbox(asio::io_context& io, std::size_t bound) : io_(io), bound_(bound) {}

    // Any thread.
    void push(Arrival arrival) {
        std::lock_guard lock(mutex_);
        if (closed_) return;
        if (queue_.size() >= bound_) {
            overflow_.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        queue_.push_back(std::move(arrival));
        if (posted_) return;
        posted_ = true;
        asio::post(io_, [self = shared_from_this()] { self->drain(); });
    }
    std::int64_t overflow() const { return overflow_.load(std::memory_order_relaxed); }

    // Loop only.
    void setSink(Sink sink) { sink_ = std::move(sink); }
    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        queue_.clear();
        sink_ = nullptr;
    }

private:
    void drain() {
        std::deque<Arrival> batch;
        {
            std::lock_guard lock(mutex_);
            batch.swap(queue_);
            posted_ = false;
        }
        for (Arrival& a : batch)
            if (sink_) sink_(a);
    }

    asio::io_context& io_;
    const std::size_t bound_;
    std::mutex mutex_;
    std::deque<Arrival> queue_;
    bool posted_ = false;
    bool closed_ = false;
    std::atomic<std::int64_t> overflow_{0};
    Sink sink_;  // loop only
};

}  // namespace ksd::cluster

#endif
