// Log levels by name or number, and where a detached ksd's records go.
// A name always maps to the same number, so both spellings mean one threshold.
#ifndef KSD_LOG_SETUP_H
#define KSD_LOG_SETUP_H

#include <optional>
#include <string_view>

namespace ksd {

// The named levels and the OrvoLogging threshold each stands for. Records are
// made at 1 (problems, start and stop), 4 (refusals, drops, lost
// subscribers) and 9 (every connection and request).
inline constexpr int kLogError = 1;
inline constexpr int kLogWarning = 4;
inline constexpr int kLogInfo = 5;
inline constexpr int kLogDebug = 8;
inline constexpr int kLogTrace = 9;

// "error", "warning", "info", "debug", "trace" (any case) or a number 0-9;
// nothing for anything else.
std::optional<int> parseLogLevel(std::string_view text);

// The syslog priority a record of `level` is sent with.
int syslogPriority(int level);

// Sends every finished record to syslog(3) as "ksd[pid]" of facility daemon,
// which the journal picks up; for a detached ksd with no log file named.
void logToSyslog();

// True when OSUPT_LOG_FILE names a file to log to.
bool logFileNamed();

}  // namespace ksd

#endif
