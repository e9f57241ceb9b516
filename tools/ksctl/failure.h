#ifndef KSCTL_FAILURE_H
#define KSCTL_FAILURE_H

// Turns a failed libksintf call into ksctl's one line on stderr and its exit code.
// A code that could be a transport error or a daemon answer is settled by asking the daemon.

#include <string_view>

#include "results.h"

namespace ksctl {

// Prints "ksctl: <subject>: <words> (<code>)" and returns 1, or, when the daemon cannot be
// reached, "ksctl: cannot reach ksd at <address>: <words> (<code>)" and returns 69.
int reportFailure(std::string_view subject, Domain domain, int code);

// "ksctl: <message>" on stderr; returns `exitCode`.
int reportError(std::string_view message, int exitCode);

// One cheap round trip to the daemon: its answer (0 or more) or the negative result of the attempt.
int probeDaemon();

}  // namespace ksctl

#endif
