#include "failure.h"

#include <cstdio>
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

}  // namespace

int reportFailure(std::string_view subject, Domain domain, int code) {
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
    return reportError(shortSubject(subject) + ": " + resultWords(domain, code) + " (" + std::to_string(code) + ")",
                       kExitRefused);
}

}  // namespace ksctl
