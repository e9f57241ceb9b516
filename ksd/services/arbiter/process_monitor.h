#ifndef KSD_SERVICES_ARBITER_PROCESS_MONITOR_H
#define KSD_SERVICES_ARBITER_PROCESS_MONITOR_H

// Tells, on the event loop, when a process ends. PidfdMonitor watches a
// pidfd with the loop (no thread, no polling); tests substitute their own.

#include <sys/types.h>

#include <asio/io_context.hpp>
#include <functional>
#include <memory>
#include <unordered_map>

namespace ksd {

class ProcessMonitor {
public:
    enum class WatchResult {
        Watching,     // onExit runs once, on the loop, after the process ended
        Gone,         // the process has already ended; onExit will not run
        Unsupported,  // cannot watch it (no pidfd, out of descriptors)
    };
    virtual ~ProcessMonitor() = default;
    // One watch per pid: a second watch of the same pid replaces the first.
    virtual WatchResult watch(pid_t pid, std::function<void()> onExit) = 0;
    // Stops watching; onExit of that watch will not run.
    virtual void unwatch(pid_t pid) = 0;
};

class PidfdMonitor final : public ProcessMonitor {
public:
    explicit PidfdMonitor(asio::io_context& io);
    ~PidfdMonitor() override;

    WatchResult watch(pid_t pid, std::function<void()> onExit) override;
    void unwatch(pid_t pid) override;
    std::size_t watched() const { return watches_.size(); }

private:
    struct Watch;
    asio::io_context& io_;
    std::unordered_map<pid_t, std::shared_ptr<Watch>> watches_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();
};

}  // namespace ksd

#endif
