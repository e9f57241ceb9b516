#include "services/arbiter/process_monitor.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <cstring>

#include "OrvoLogging.h"

namespace ksd {

struct PidfdMonitor::Watch {
    explicit Watch(asio::io_context& io, int fd) : descriptor(io, fd) {}
    asio::posix::stream_descriptor descriptor;
};

PidfdMonitor::PidfdMonitor(asio::io_context& io) : io_(io) {}

PidfdMonitor::~PidfdMonitor() {
    // Closing the descriptors aborts the waits; `alive_` keeps their handlers away from us.
    for (auto& [pid, watch] : watches_) {
        std::error_code ec;
        watch->descriptor.close(ec);
    }
}

ProcessMonitor::WatchResult PidfdMonitor::watch(pid_t pid, std::function<void()> onExit) {
    // glibc 2.36 has no wrapper header for pidfd_open everywhere: call it directly.
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) {
        const int error = errno;
        if (error == ESRCH) return WatchResult::Gone;
        ORVO_LOG(1, "ksd: cannot watch process " << static_cast<int>(pid) << ": " << std::strerror(error));
        return WatchResult::Unsupported;
    }
    unwatch(pid);
    auto watch = std::make_shared<Watch>(io_, fd);
    watches_[pid] = watch;
    std::weak_ptr<char> alive = alive_;
    std::weak_ptr<Watch> self = watch;
    // A pidfd turns readable when its process has ended.
    watch->descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                 [this, alive, self, pid, onExit = std::move(onExit)](const std::error_code& ec) {
                                     if (ec || alive.expired()) return;
                                     auto w = self.lock();
                                     auto it = watches_.find(pid);
                                     if (!w || it == watches_.end() || it->second != w) return;
                                     watches_.erase(it);
                                     onExit();
                                 });
    return WatchResult::Watching;
}

void PidfdMonitor::unwatch(pid_t pid) {
    auto it = watches_.find(pid);
    if (it == watches_.end()) return;
    std::error_code ec;
    it->second->descriptor.close(ec);
    watches_.erase(it);
}

}  // namespace ksd
