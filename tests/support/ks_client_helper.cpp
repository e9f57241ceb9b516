// ks_client_helper: a second (or third) client process for end-to-end tests.
// Runs its arguments as a script of libksintf calls, one step after the
// other, and prints one line per step on stdout (flushed at once), so the
// test can follow along:
//   lock NAME MS        -> "lock <handle>"
//   unlock H|last       -> "unlock <result>"   (last: the handle of the last lock)
//   create NAME DESC    -> "create <id>"
//   progress ID P       -> "progress <result>"
//   watch-lock NAME     -> "watch-lock <registration>", then "ra-event <name> <code>" per event
//   watch-job NAME      -> "watch-job <registration>", then "js-event <name> <code>" per event
//   cycle NAME MS HOLD  -> for MS milliseconds: lock (5 s time-out), hold HOLD ms, unlock; per grant
//                          "held <handle> <granted ns> <released ns>" (CLOCK_MONOTONIC, one for all
//                          processes), per failed lock "lock <result>"; then "cycle done"
//   sleep MS            -> "sleep done"
//   wait                -> "waiting", then "wait done" once a line (or end) arrives on stdin
//   hang                -> "hanging", then sleeps until killed
// The daemon is the one KSINTF_CONN_TYPE names.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
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
    for (int i = 1; i < argc; ++i) {
        const std::string step = argv[i];
        auto arg = [&](int k) -> std::string {
            if (i + k >= argc) usage("'" + step + "' needs more arguments");
            return argv[i + k];
        };
        if (step == "lock") {
            lastHandle = OrvoRAResourceLock(arg(1).c_str(), std::stoi(arg(2)));
            say("lock " + std::to_string(lastHandle));
            i += 2;
        } else if (step == "unlock") {
            const std::string h = arg(1);
            const long handle = h == "last" ? lastHandle : std::stol(h);
            say("unlock " + std::to_string(OrvoRAResourceUnlock(handle)));
            i += 1;
        } else if (step == "create") {
            say("create " + std::to_string(OrvoJSECreateJob(arg(2).c_str(), arg(1).c_str())));
            i += 2;
        } else if (step == "progress") {
            say("progress " + std::to_string(OrvoJSESetJobProgress(std::stoi(arg(1)), std::stoi(arg(2)))));
            i += 2;
        } else if (step == "watch-lock") {
            say("watch-lock " + std::to_string(OrvoRARegisterForNotification(arg(1).c_str(), onLockEvent)));
            i += 1;
        } else if (step == "watch-job") {
            say("watch-job " + std::to_string(OrvoJSERegisterForNotification(arg(1).c_str(), onJobEvent)));
            i += 1;
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
