#ifndef KSCTL_OPERATOR_QUERY_H
#define KSCTL_OPERATOR_QUERY_H

// Asks ksd an operator query ("status", "locks", "jobs", "subscriptions"): one
// request on its own connection, answered by one JSON text or an error value.

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "commands.h"
#include "json.h"

namespace ksctl {

struct QueryAnswer {
    enum class Outcome { Answered, Refused, Unreachable, NoAnswer, Malformed };
    Outcome outcome = Outcome::NoAnswer;
    int code = 0;      // Refused, Unreachable: the errno the daemon or the socket gave
    std::string text;  // Answered: the JSON; otherwise the reason in words
};

// Receives one page of a list (a JSON array, not empty), in key order; may take its items.
using PageSink = std::function<void(JsonValue& page)>;

// Gives up after `timeout` (a daemon that accepts but never answers).
QueryAnswer queryDaemon(std::string_view what, std::chrono::milliseconds timeout);

// A list answered in pages ("jobs" by "id", "locks" by "handle", "subscriptions"
// by "seq"): asks for the page after the last key of each page until an empty
// one, handing each page to `sink` once it is read. Answered (with no text)
// when the empty page came; Malformed when a page is not a JSON array.
QueryAnswer queryEveryPage(std::string_view what, const char* key, std::chrono::milliseconds timeout,
                           const PageSink& sink);

// Runs a query and prints its answer (JSON as is with --json, else a table or "name  value"
// lines, or `emptyText` for an empty array). The answer must be of the `expected` kind.
int printQuery(const GlobalOptions& options, const char* what, JsonValue::Kind expected, const char* emptyText);

}  // namespace ksctl

#endif
