// `ksctl job watch`: follows one job through its events until it completes, is cancelled
// or is deleted. Events only wake the loop; the progress shown is always read back from
// ksd, so a missed or coalesced event never shows a stale figure.

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "OrvoJobStatus.h"
#include "commands.h"
#include "daemon_events.h"
#include "daemon_watch.h"
#include "failure.h"
#include "json.h"
#include "operator_query.h"
#include "output.h"

namespace ksctl {
namespace {

// Events from the library's callback thread. Never destroyed: the library
// may still call back after the unregistration, even while ksctl exits.
struct Mailbox {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<tOrvoJSEEvent> events;
};

Mailbox& mailbox() {
    static Mailbox* const box = new Mailbox;
    return *box;
}

void onJobEvent(const char*, tOrvoJSEEvent event) {
    Mailbox& box = mailbox();
    {
        std::lock_guard<std::mutex> lock(box.mutex);
        box.events.push_back(event);
    }
    box.wake.notify_one();
}

// Job `id` as the operator's job list shows it: its name and state ("running",
// "completed", "cancelled"); empty when it is not listed.
struct Listing {
    std::string name;
    std::string state;
};

Listing listingOf(int id, const GlobalOptions& options) {
    std::optional<Listing> found;
    const std::string wanted = std::to_string(id);
    const QueryAnswer answer = queryEveryPage("jobs", "id", options.replyTimeout, [&](JsonValue& page) {
        for (const JsonValue& job : page.items) {
            if (found) return;
            const JsonValue* jobId = job.find("id");
            const JsonValue* name = job.find("name");
            const JsonValue* state = job.find("state");
            if (jobId && name && name->kind == JsonValue::Kind::String && toJson(*jobId) == wanted)
                found = {name->text, state && state->kind == JsonValue::Kind::String ? state->text : std::string()};
        }
    });
    if (answer.outcome != QueryAnswer::Outcome::Answered || !found) return {};
    return *found;
}

class Display {
public:
    Display(const GlobalOptions& options, const JobRef& job)
        : json_(options.json), bar_(!options.json && ::isatty(STDOUT_FILENO)), job_(job) {}

    void show(const char* event, int progress) {
        // Shown as it is read back from ksd: the time is when ksctl saw it.
        const std::string time = timeText(std::chrono::system_clock::now());
        if (json_) {
            std::printf("{\"time\":\"%s\",\"id\":%d,\"name\":%s,\"event\":\"%s\",\"progress\":%d}\n", time.c_str(),
                        job_.id, jsonQuote(job_.name).c_str(), event, progress);
        } else if (bar_) {
            const int filled = progress / 5;
            std::printf("\r[%s%s] %3d%% %s (%s)   ", std::string(filled, '#').c_str(),
                        std::string(20 - filled, ' ').c_str(), progress, oneLine(job_.name).c_str(), event);
        } else {
            std::printf("%s job %d %s: %s, %d%%\n", time.c_str(), job_.id, oneLine(job_.name).c_str(), event, progress);
        }
        std::fflush(stdout);
    }
    void end() {
        if (bar_) std::printf("\n");
        std::fflush(stdout);
    }

private:
    bool json_;
    bool bar_;
    const JobRef& job_;
};

}  // namespace

int runJobWatch(const GlobalOptions& options, const JobArgs& args) {
    int exitCode = kExitOk;
    auto job = resolveJob(args.job, exitCode);
    if (!job) return exitCode;
    const std::string subject = "job " + std::to_string(job->id);
    const Listing listing = listingOf(job->id, options);
    if (listing.name.empty()) return reportFailure(subject, Domain::Job, -2);
    job->name = listing.name;

    const int registration = OrvoJSERegisterForNotification(job->name.c_str(), onJobEvent);
    if (registration < 0) return reportFailure(subject, Domain::Job, registration);
    Display display(options, *job);
    // Read after subscribing, so that nothing between the two is lost.
    int progress = OrvoJSEGetJobProgress(job->id);
    int result = -1;
    if (progress == -125 || listing.state == "cancelled") {
        display.show("cancelled", 0);
        result = kExitJobCancelled;
    } else if (progress < 0) {
        result = reportFailure(subject, Domain::Job, progress);
    } else if (progress == 100) {
        display.show("completed", progress);
        result = kExitOk;
    } else {
        display.show("progress", progress);
    }
    // ksd keeps the subscription across its restarts; the user is told it was gone.
    DaemonWatch watch;
    while (result < 0) {
        Mailbox& box = mailbox();
        std::unique_lock<std::mutex> lock(box.mutex);
        // The periodic read also notices a job or a daemon that went away without an event.
        box.wake.wait_for(lock, std::chrono::seconds(2), [&box] { return !box.events.empty(); });
        const bool woken = !box.events.empty();
        const tOrvoJSEEvent event = woken ? box.events.front() : TRVX_JSE_UPDATED;
        if (woken) box.events.pop_front();
        lock.unlock();

        if (event == TRVX_JSE_EXIT) {
            display.show(jobEventWord(event), progress);
            result = kExitJobDeleted;
            break;
        }
        if (event == TRVX_JSE_CANCELLED) {
            display.show(jobEventWord(event), progress);
            result = kExitJobCancelled;
            break;
        }
        const int now = OrvoJSEGetJobProgress(job->id);
        if (now != -125 && (now < 0 || !watch.reachable())) {
            watch.check();
            if (!watch.reachable()) continue;
        }
        if (now == -2) {
            display.show("deleted", progress);
            result = kExitJobDeleted;
        } else if (now == -125) {
            display.show("cancelled", progress);
            result = kExitJobCancelled;
        } else if (now < 0) {
            display.end();
            result = reportFailure(subject, Domain::Job, now);
        } else if (woken || now != progress) {
            progress = now;
            const bool done = event == TRVX_JSE_COMPLETED || now == 100;
            display.show(done ? "completed" : jobEventWord(event), now);
            if (done) result = kExitOk;
        }
    }
    display.end();
    OrvoJSEUnregisterForNotification(registration);
    return result;
}

}  // namespace ksctl
