// Log levels by name or number, and where ksd's records go when no file is named.
// A name always maps to the same number, so both spellings mean one threshold.
#ifndef KSD_LOG_SETUP_H
#define KSD_LOG_SETUP_H

#include <optional>
#include <string_view>

namespace ksd {

// Records are made at 0 (start, stop, log reopened: always shown), 1 (problems),
// 4 (refusals, drops, failed task starts), 5 (what was loaded at start) and 9
// (every connection and request). A daemon shows its warnings by default.
inline constexpr int kLogWarning = 4;

// A level name (notice, error, warning, info, debug, trace; any case) or a
// number 0-1000, as the logger reads OSUPT_LOG_LEVEL; nothing for anything else.
std::optional<int> parseLogLevel(std::string_view text);

// The syslog priority a record of `level` is sent with: notice, err, warning, info or debug.
int syslogPriority(int level);

// Sends every finished record to syslog(3) as "ksd[pid]" of facility daemon,
// which the journal picks up; for a detached ksd with no log file named.
void logToSyslog();

// When standard error is the journal's stream (a service's), writes each record
// there with its priority as a "<N>" prefix, which the journal takes as the
// line's priority. False, changing nothing, otherwise.
bool logToJournalStream();

// True when OSUPT_LOG_FILE names a file to log to.
bool logFileNamed();

}  // namespace ksd

#endif
