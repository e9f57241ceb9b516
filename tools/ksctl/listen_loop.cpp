#include "listen_loop.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "OrvoNotificationNetwork.h"
#include "daemon_watch.h"
#include "failure.h"

namespace ksctl {
namespace {

void unregisterAll(const std::vector<int>& handles) {
    for (int handle : handles) {
        int rc = OrvoNNUnregisterForNotification(handle);
        if (rc != 0) {
            reportError("unsubscribe: " + resultWords(Domain::Notify, rc) + " (" + std::to_string(rc) + ")", 0);
        }
    }
}

constexpr int kProbePeriodMs = 2000;

}  // namespace

int listenUntilStopped(const ListenPlan& plan) {
    // Block the stop signals before the library starts its callback thread, which inherits
    // the mask; they then arrive only through the signalfd and never kill us unregistered.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    int signalFd = ::signalfd(-1, &stopSignals, SFD_CLOEXEC);
    if (signalFd < 0) return reportError(std::string("signalfd: ") + std::strerror(errno), kExitRefused);

    Inbox& inbox = Inbox::instance();
    std::vector<int> handles;
    for (const auto& event : plan.events) {
        int handle = plan.subscribe(event);
        if (handle < 0) {
            unregisterAll(handles);
            ::close(signalFd);
            return reportFailure("subscribe " + event, Domain::Notify, handle);
        }
        handles.push_back(handle);
    }

    long long printed = 0;
    bool stop = plan.count && *plan.count <= 0;
    // ksd keeps the subscriptions across its restarts; the user is told it was gone.
    DaemonWatch watch;
    while (!stop) {
        pollfd fds[2] = {{inbox.fd(), POLLIN, 0}, {signalFd, POLLIN, 0}};
        const int ready = ::poll(fds, 2, kProbePeriodMs);
        if (ready < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (ready == 0) {
            watch.check();
            continue;
        }
        for (const auto& n : inbox.takeAll()) {
            std::optional<std::string> line = plan.format(n);
            if (!line) continue;
            std::fwrite(line->data(), 1, line->size(), stdout);
            std::fputc('\n', stdout);
            std::fflush(stdout);
            if (plan.count && ++printed >= *plan.count) {
                stop = true;
                break;
            }
        }
        if (fds[1].revents & POLLIN) stop = true;
    }

    unregisterAll(handles);
    ::close(signalFd);
    return kExitOk;
}

}  // namespace ksctl
