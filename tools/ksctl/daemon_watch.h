#ifndef KSCTL_DAEMON_WATCH_H
#define KSCTL_DAEMON_WATCH_H

// Notices, for the long-running commands (subscribe, lock, job watch), a daemon that went
// away and one that came back, and says so once on stderr each time.

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace ksctl {

class DaemonWatch {
public:
    // Probes once; prints a line when reachability changed since the last probe.
    void check();
    // As the last check found it.
    bool reachable() const { return reachable_; }

    // Checks every `periodMs` on a thread of its own until stopped or destroyed.
    void startPeriodic(int periodMs);
    void stop();
    ~DaemonWatch() { stop(); }

private:
    bool reachable_ = true;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
};

}  // namespace ksctl

#endif
