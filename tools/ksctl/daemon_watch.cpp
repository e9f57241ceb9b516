#include "daemon_watch.h"

#include <chrono>
#include <string>

#include "failure.h"
#include "results.h"
#include "target.h"

namespace ksctl {

void DaemonWatch::check() {
    const int probe = probeDaemon();
    const bool reachable = probe >= 0 || !(isTransportFailure(probe) || mayBeTransportFailure(probe));
    if (reachable == reachable_) return;
    reachable_ = reachable;
    if (!reachable) {
        reportError("lost ksd at " + describeDaemon() + ": " + transportWords(probe) + " (" + std::to_string(probe) +
                        "); waiting for it to come back",
                    0);
    } else {
        reportError("ksd at " + describeDaemon() + " is back", 0);
    }
}

void DaemonWatch::startPeriodic(int periodMs) {
    thread_ = std::thread([this, periodMs] {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!wake_.wait_for(lock, std::chrono::milliseconds(periodMs), [this] { return stopping_; })) {
            lock.unlock();
            check();
            lock.lock();
        }
    });
}

void DaemonWatch::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

}  // namespace ksctl
