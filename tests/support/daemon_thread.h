// A Daemon running on a thread of its own, for tests and benchmarks that
// want a real daemon in-process. Listening when constructed; stopped and
// joined when destroyed.
#ifndef KSTEST_DAEMON_THREAD_H
#define KSTEST_DAEMON_THREAD_H

#include <asio/post.hpp>
#include <future>
#include <memory>
#include <thread>
#include <type_traits>

#include "daemon.h"

namespace ksd {

class DaemonThread {
public:
    explicit DaemonThread(DaemonOptions options)
        : daemon_(std::make_unique<Daemon>(std::move(options))), thread_([this] { daemon_->run(); }) {}
    ~DaemonThread() {
        daemon_->stop();
        thread_.join();
    }
    DaemonThread(const DaemonThread&) = delete;
    DaemonThread& operator=(const DaemonThread&) = delete;

    Daemon& daemon() { return *daemon_; }

    // Runs fn on the daemon's loop and returns its result: the safe way to
    // look at the daemon's state from another thread (while it runs).
    template <typename Fn>
    auto onLoop(Fn fn) -> std::invoke_result_t<Fn> {
        using R = std::invoke_result_t<Fn>;
        std::packaged_task<R()> task(std::move(fn));
        auto result = task.get_future();
        asio::post(daemon_->io(), [&task] { task(); });
        return result.get();
    }

private:
    std::unique_ptr<Daemon> daemon_;
    std::thread thread_;
};

}  // namespace ksd

#endif
