#ifndef KSCTL_DAEMON_QUERY_H
#define KSCTL_DAEMON_QUERY_H

// Asks ksd an operator query ("status", "jobs", "locks") over the notification network:
// subscribe to a private reply event, publish "KsdQuery", wait for the one answer.

#include <chrono>
#include <string>
#include <string_view>

#include "commands.h"
#include "json.h"

namespace ksctl {

struct QueryAnswer {
    enum class Outcome { Answered, CallFailed, NotTaken, NoAnswer };
    Outcome outcome = Outcome::NoAnswer;
    int code = 0;      // CallFailed: the negative result of the failed libksintf call
    std::string json;  // Answered: the daemon's JSON text
};

QueryAnswer queryDaemon(std::string_view what, std::chrono::milliseconds timeout);

// Turns an unsuccessful answer into ksctl's message and exit code (see failure.h).
int reportQueryFailure(std::string_view what, const QueryAnswer& answer, std::chrono::milliseconds timeout);

// Runs a query and prints its answer (JSON as is with --json, else a table or "name  value"
// lines, or `emptyText` for an empty array). The answer must be of the `expected` kind.
int printQuery(const GlobalOptions& options, const char* what, JsonValue::Kind expected, const char* emptyText);

}  // namespace ksctl

#endif
