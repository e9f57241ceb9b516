#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "OrvoNotificationNetwork.h"
#include "commands.h"
#include "daemon_watch.h"
#include "failure.h"
#include "inbox.h"
#include "json.h"
#include "output.h"

namespace ksctl {
namespace {

// Enough to recognise a payload on a terminal; scripts asking --json get more.
constexpr std::size_t kHumanPreview = 64;
constexpr std::size_t kJsonPreview = 4096;

std::string formatNotification(const Notification& n, bool json) {
    PayloadPreview preview = previewPayload(n.payload, json ? kJsonPreview : kHumanPreview);
    std::string line;
    if (json) {
        line = "{\"event\":" + jsonQuote(n.event) + ",\"text\":" + jsonQuote(n.text) +
               ",\"size\":" + std::to_string(n.payload.size()) + ",";
        if (preview.printable) {
            line += "\"payload\":" + jsonQuote(preview.shown);
        } else {
            std::string hex = preview.shown;
            std::erase(hex, ' ');
            line += "\"payload_hex\":" + jsonQuote(hex);
        }
        line += std::string(",\"truncated\":") + (preview.truncated ? "true" : "false") + "}";
        return line;
    }
    line = oneLine(n.event) + ": text \"" + oneLine(n.text) + "\", " + std::to_string(n.payload.size()) + " byte" +
           (n.payload.size() == 1 ? "" : "s");
    if (!n.payload.empty()) {
        line += preview.printable ? ": " + oneLine(preview.shown) : " (hex): " + preview.shown;
        if (preview.truncated) line += " ...";
    }
    return line;
}

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

int runSubscribe(const GlobalOptions& options, const SubscribeArgs& args) {
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
    for (const auto& event : args.events) {
        int handle = OrvoNNRegisterForNotification(event.c_str(), &Inbox::deliver, &inbox);
        if (handle < 0) {
            unregisterAll(handles);
            ::close(signalFd);
            return reportFailure("subscribe " + event, Domain::Notify, handle);
        }
        handles.push_back(handle);
    }

    long long received = 0;
    bool stop = args.count && *args.count <= 0;
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
            std::string line = formatNotification(n, options.json);
            std::fwrite(line.data(), 1, line.size(), stdout);
            std::fputc('\n', stdout);
            std::fflush(stdout);
            if (args.count && ++received >= *args.count) {
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
