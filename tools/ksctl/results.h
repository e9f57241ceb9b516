#ifndef KSCTL_RESULTS_H
#define KSCTL_RESULTS_H

// ksctl's exit codes and the table that turns a negative result of a libksintf call into words.
// The same number means different things per family (-2: no such job, or no such socket), hence the domain.

#include <string>
#include <string_view>

namespace ksctl {

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;          // the daemon answered with a negative domain result
constexpr int kExitUsage = 2;            // bad command line or unreadable input file
constexpr int kExitTimedOut = 3;         // `lock --timeout` expired
constexpr int kExitJobCancelled = 4;     // `job watch`: the job was cancelled
constexpr int kExitJobDeleted = 5;       // `job watch`: the job was deleted
constexpr int kExitUnreachable = 69;     // sysexits' EX_UNAVAILABLE: the daemon could not be reached
constexpr int kExitOutcomeUnknown = 75;  // sysexits' EX_TEMPFAIL: sent, but no answer within the deadline

// The exit-code table as `ksctl --help` prints it.
extern const char* const kExitCodeTable;

enum class Domain { Generic, Job, JobName, Lock, Task, TaskName, Notify };

// Words for a negative result in a domain ("no such job"); generic errno words otherwise.
std::string resultWords(Domain domain, int code);

// Words for a failed connection attempt (transport errno, as a negative result).
std::string transportWords(int code);

// True when `code` can only come from a failed transport, never from the daemon's answer.
bool isTransportFailure(int code);

// True when `code` may be either a transport failure or a domain answer (-2 is both
// "socket path missing" and "no such job"); the caller must ask the daemon to tell them apart.
bool mayBeTransportFailure(int code);

}  // namespace ksctl

#endif
