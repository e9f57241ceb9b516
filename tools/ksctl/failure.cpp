#include "failure.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "OrvoJobStatus.h"
#include "target.h"

namespace ksctl {

int reportError(std::string_view message, int exitCode) {
    std::fprintf(stderr, "ksctl: %.*s\n", static_cast<int>(message.size()), message.data());
    return exitCode;
}

int probeDaemon() {
    // The job count is a bare round trip that every client may make, TCP ones included.
    int count = 0;
    OrvoJSEJob unused{};
    return OrvoJSEGetAllJobProgress(&count, &unused);
}

namespace {

// A subject names what the user typed; a 10 kB name is cut, not echoed back whole.
std::string shortSubject(std::string_view subject) {
    constexpr std::size_t kMost = 80;
    if (subject.size() <= kMost) return std::string(subject);
    return std::string(subject.substr(0, kMost)) + "... (" + std::to_string(subject.size()) + " bytes)";
}

// Over TCP ksd knows no user, so it refuses what needs one; the reply is only -13.
std::string tcpRefusal(Domain domain) {
    switch (domain) {
        case Domain::Job:
        case Domain::JobName:
            return "over TCP ksd lets a client read jobs but not change them; use the pipe";
        case Domain::Task:
        case Domain::TaskName:
            return "over TCP ksd schedules no programs; use the pipe";
        case Domain::Notify:
            return "over TCP ksd pushes only to a loopback TCP callback address (OCNET_CALLBACK_TYPE=socket)";
        default:
            return "over TCP ksd knows no user and refuses this; use the pipe";
    }
}

}  // namespace

int reportFailure(std::string_view subject, Domain domain, int code) {
    // The request went out and no answer came within the deadline: asking again would wait
    // as long once more, and could not tell whether the change was made.
    if (code == -ETIMEDOUT && domain != Domain::Lock) {
        const char* deadline = std::getenv("KSINTF_REPLY_TIMEOUT_MS");
        return reportError(shortSubject(subject) + ": sent, outcome unknown: no answer from ksd at " +
                               describeDaemon() + " within " + (deadline ? deadline : "?") + " ms (-110)",
                           kExitOutcomeUnknown);
    }
    int transportCode = 0;
    if (isTransportFailure(code)) {
        transportCode = code;
    } else if (mayBeTransportFailure(code)) {
        int probe = probeDaemon();
        if (probe < 0 && (isTransportFailure(probe) || mayBeTransportFailure(probe))) transportCode = probe;
    }
    if (transportCode != 0) {
        return reportError("cannot reach ksd at " + describeDaemon() + ": " + transportWords(transportCode) + " (" +
                               std::to_string(transportCode) + ")",
                           kExitUnreachable);
    }
    const std::string words = code == -EACCES && daemonAddress().tcp ? tcpRefusal(domain) : resultWords(domain, code);
    return reportError(shortSubject(subject) + ": " + words + " (" + std::to_string(code) + ")", kExitRefused);
}

}  // namespace ksctl
