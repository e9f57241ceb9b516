#ifndef KSCTL_COMMANDS_H
#define KSCTL_COMMANDS_H

// The commands of ksctl, each run with its parsed arguments; each returns the process exit code
// and prints its own result (stdout) or its one-line failure (stderr).

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace ksctl {

struct GlobalOptions {
    bool json = false;
    bool verbose = false;  // a command that prints an id also says what it did, on stderr
    std::chrono::milliseconds replyTimeout{30000};
};

struct PublishArgs {
    std::string event;
    std::string text;
    std::optional<std::string> dataFile;  // "-" reads standard input
};

struct SubscribeArgs {
    std::vector<std::string> events;
    std::optional<long long> count;  // exit after this many notifications
};

struct EventsArgs {
    bool jobs = false;  // none of the three: all of them
    bool locks = false;
    bool tasks = false;
    std::optional<long long> count;  // exit after this many events
};

struct LockArgs {
    std::string name;
    std::optional<int> timeoutMs;  // none: wait without limit
    std::vector<std::string> command;
};

struct JobArgs {
    enum class Action { Create, Lookup, Progress, Cancel, Delete, List, Watch };
    Action action = Action::List;
    std::string name;
    std::string description;
    std::string job;             // an id, or a name looked up first
    std::optional<int> percent;  // Progress: set when given, read otherwise
};

// A job the user named by id or by name.
struct JobRef {
    int id = 0;
    std::string name;  // empty when given by id and not looked up
};

// Resolves `text` (all digits: an id; otherwise a name, looked up); on failure reports it
// and returns the exit code in `exitCode`.
std::optional<JobRef> resolveJob(const std::string& text, int& exitCode);

int runJobWatch(const GlobalOptions& options, const JobArgs& args);

struct TaskArgs {
    enum class Action { Schedule, List, Show, Cancel, BlobPut, BlobGet };
    Action action = Action::List;
    std::string name;
    std::string program;
    std::string arguments;
    std::string workDir = "/";
    std::string logFile;
    std::string at;              // "YYYY-MM-DD HH:MM:SS" (local; GMT for blobs)
    std::string every = "once";  // once, daily, weekly, monthly, boot
    std::string file;            // blob-put: input; blob-get: output ("-" or empty: standard output)
    bool blobs = false;          // list: blob tasks instead of program tasks
    std::string task;            // show, cancel, blob-get: a handle, or a name looked up first
};

// Prints the bare id or handle on stdout for scripts, and `sentence` on stderr for a
// person: on a terminal, or with --verbose. --json prints `json` alone.
void printId(const GlobalOptions& options, long long id, const std::string& json, const std::string& sentence);

int runPublish(const GlobalOptions& options, const PublishArgs& args);
int runSubscribe(const GlobalOptions& options, const SubscribeArgs& args);
int runEvents(const GlobalOptions& options, const EventsArgs& args);
int runLock(const GlobalOptions& options, const LockArgs& args);
int runJob(const GlobalOptions& options, const JobArgs& args);
int runTask(const GlobalOptions& options, const TaskArgs& args);
int runStatus(const GlobalOptions& options);
int runLocks(const GlobalOptions& options);
int runSubscriptions(const GlobalOptions& options);

}  // namespace ksctl

#endif
