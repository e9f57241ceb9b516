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
    std::chrono::milliseconds replyTimeout{5000};
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

struct LockArgs {
    std::string name;
    std::optional<int> timeoutMs;  // none: wait without limit
    std::vector<std::string> command;
};

struct JobArgs {
    enum class Action { Create, Lookup, Progress, Cancel, Delete, List };
    Action action = Action::List;
    std::string name;
    std::string description;
    int id = 0;
    std::optional<int> percent;  // Progress: set when given, read otherwise
};

int runPublish(const GlobalOptions& options, const PublishArgs& args);
int runSubscribe(const GlobalOptions& options, const SubscribeArgs& args);
int runLock(const GlobalOptions& options, const LockArgs& args);
int runJob(const GlobalOptions& options, const JobArgs& args);
int runStatus(const GlobalOptions& options);
int runLocks(const GlobalOptions& options);
int runSubscriptions(const GlobalOptions& options);

}  // namespace ksctl

#endif
