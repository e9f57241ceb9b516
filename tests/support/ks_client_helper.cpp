// ks_client_helper: a second (or third) client process for end-to-end tests,
// talking to the daemon KSINTF_CONN_TYPE names. Runs its arguments as a script
// of steps and prints one line per step at once, so the test can follow along.
// The library calls (`calls` below) print "<step> <result>"; "unlock last" takes
// the last lock's handle; watches print "ra-event|js-event <name> <code>" per event.
//   cycle NAME MS HOLD  -> for MS milliseconds: lock (5 s time-out), hold HOLD ms, unlock; per grant
//                          "held <handle> <granted ns> <released ns>" (CLOCK_MONOTONIC, one for all
//                          processes), per failed lock "lock <result>"; then "cycle done"
//   sleep MS            -> "sleep done"
//   wait                -> "waiting", then "wait done" once a line (or end) arrives on stdin
//   hang                -> "hanging", then sleeps until killed
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "OrvoJobStatus.h"
#include "OrvoResourceArbitration.h"

namespace {

std::mutex g_outputMutex;

void say(const std::string& line) {
    std::lock_guard<std::mutex> lock(g_outputMutex);
    const std::string text = line + "\n";
    [[maybe_unused]] auto n = ::write(STDOUT_FILENO, text.data(), text.size());
}

void onLockEvent(const char* name, int code) { say("ra-event " + std::string(name) + " " + std::to_string(code)); }

void onJobEvent(const char* name, tOrvoJSEEvent event) {
    say("js-event " + std::string(name) + " " + std::to_string(static_cast<int>(event)));
}

[[noreturn]] void usage(const std::string& why) {
    std::fprintf(stderr, "ks_client_helper: %s\n", why.c_str());
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    long lastHandle = -1;
    const auto handle = [&](const std::string& h) { return h == "last" ? lastHandle : std::stol(h); };
    // Step name -> its number of arguments and the call it makes.
    const std::map<std::string, std::pair<int, std::function<long(char**)>>> calls = {
        {"lock", {2, [&](char** a) { return lastHandle = OrvoRAResourceLock(a[0], std::stoi(a[1])); }}},
        {"unlock", {1, [&](char** a) { return OrvoRAResourceUnlock(handle(a[0])); }}},
        {"create", {2, [](char** a) { return OrvoJSECreateJob(a[1], a[0]); }}},
        {"progress", {2, [](char** a) { return OrvoJSESetJobProgress(std::stoi(a[0]), std::stoi(a[1])); }}},
        {"watch-lock", {1, [](char** a) { return OrvoRARegisterForNotification(a[0], onLockEvent); }}},
        {"watch-job", {1, [](char** a) { return OrvoJSERegisterForNotification(a[0], onJobEvent); }}},
    };
    for (int i = 1; i < argc; ++i) {
        const std::string step = argv[i];
        auto arg = [&](int k) -> std::string {
            if (i + k >= argc) usage("'" + step + "' needs more arguments");
            return argv[i + k];
        };
        if (const auto call = calls.find(step); call != calls.end()) {
            arg(call->second.first);
            say(step + " " + std::to_string(call->second.second(argv + i + 1)));
            i += call->second.first;
        } else if (step == "cycle") {
            using Clock = std::chrono::steady_clock;
            const auto ns = [] { return std::to_string(Clock::now().time_since_epoch().count()); };
            const auto end = Clock::now() + std::chrono::milliseconds(std::stol(arg(2)));
            const auto hold = std::chrono::milliseconds(std::stol(arg(3)));
            while (Clock::now() < end) {
                const long handle = OrvoRAResourceLock(arg(1).c_str(), 5000);
                if (handle <= 0) {
                    say("lock " + std::to_string(handle));
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                    continue;
                }
                const std::string granted = ns();
                std::this_thread::sleep_for(hold);
                say("held " + std::to_string(handle) + " " + granted + " " + ns());
                OrvoRAResourceUnlock(handle);
            }
            say("cycle done");
            i += 3;
        } else if (step == "sleep") {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::stol(arg(1))));
            say("sleep done");
            i += 1;
        } else if (step == "wait") {
            say("waiting");
            std::string line;
            std::getline(std::cin, line);
            say("wait done");
        } else if (step == "hang") {
            say("hanging");
            for (;;) ::pause();
        } else {
            usage("unknown step '" + step + "'");
        }
    }
    return 0;
}
