#ifndef KSD_SERVER_REFUSAL_LOG_H
#define KSD_SERVER_REFUSAL_LOG_H

// Rate-limits the log lines of refused connections: at most one line per user
// per interval, carrying how many refusals it stands for.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <unordered_map>

namespace ksd {

class RefusalLog {
public:
    using Clock = std::chrono::steady_clock;

    explicit RefusalLog(std::chrono::seconds interval = std::chrono::seconds(60)) : interval_(interval) {}

    // Counts one refusal of `uid`; answers the count to log when a line is due.
    std::optional<std::size_t> refused(uid_t uid, Clock::time_point now = Clock::now());

private:
    struct Entry {
        Clock::time_point lastLine;
        std::size_t unlogged = 0;
    };
    std::chrono::seconds interval_;
    std::unordered_map<uid_t, Entry> entries_;
};

}  // namespace ksd

#endif
