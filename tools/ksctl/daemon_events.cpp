#include "daemon_events.h"

#include <cstdint>
#include <cstring>
#include <string_view>

#include "OrvoJobStatus.h"
#include "OrvoTaskScheduler.h"
#include "json.h"
#include "output.h"

namespace ksctl {
namespace {

constexpr std::string_view kJobs = "OrvoJSEvent:*";
constexpr std::string_view kLocks = "OrvoRAEvent:*";
constexpr std::string_view kTasks = "OrvoTSEvent:*";

const char* lockWord(std::int32_t code) {
    switch (code) {
        case 1:
            return "locked";
        case 0:
            return "unlocked";
        case -1:
            return "holder-ended";
    }
    return "unknown";
}

// A task handle as ksd writes it: decimal, no sign, no leading zero.
bool allDigits(const std::string& s) {
    return !s.empty() && s.size() <= 10 && (s[0] != '0' || s.size() == 1) &&
           s.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

const char* jobEventWord(int code) {
    switch (code) {
        case TRVX_JSE_CREATED:
            return "created";
        case TRVX_JSE_UPDATED:
            return "updated";
        case TRVX_JSE_COMPLETED:
            return "completed";
        case TRVX_JSE_CANCELLED:
            return "cancelled";
        case TRVX_JSE_EXIT:
            return "deleted";
    }
    return "unknown";
}

const char* taskStateWord(int state) {
    switch (state) {
        case cWaiting:
            return "waiting";
        case cInProgress:
            return "in-progress";
        case cCompleted:
            return "completed";
        case cExit:
            return "exit";
    }
    return "unknown";
}

std::vector<std::string> familyEventNames(EventFamilies families) {
    const bool all = !families.jobs && !families.locks && !families.tasks;
    std::vector<std::string> names;
    if (all || families.jobs) names.emplace_back(kJobs);
    if (all || families.locks) names.emplace_back(kLocks);
    if (all || families.tasks) names.emplace_back(kTasks);
    return names;
}

std::optional<std::string> formatDaemonEvent(const Notification& n, bool json) {
    std::int32_t code = 0;
    if (n.payload.size() < sizeof code) return std::nullopt;
    std::memcpy(&code, n.payload.data(), sizeof code);  // native order, as ksd writes it

    const char* kind = nullptr;
    const char* word = nullptr;
    if (n.event == kJobs) {
        kind = "job", word = jobEventWord(code);
    } else if (n.event == kLocks) {
        kind = "lock", word = lockWord(code);
    } else if (n.event == kTasks && allDigits(n.text)) {
        kind = "task", word = taskStateWord(code);
    } else {
        return std::nullopt;
    }
    const bool isTask = std::string_view(kind) == "task";
    const std::string time = timeText(n.received);
    if (!json) return time + " " + kind + " " + oneLine(n.text) + ": " + word + " (" + std::to_string(code) + ")";
    std::string line = "{\"time\":\"" + time + "\",\"kind\":\"" + kind + "\",";
    line += isTask ? "\"handle\":" + n.text : "\"name\":" + jsonQuote(n.text);
    line += ",\"code\":" + std::to_string(code) + ",\"event\":\"" + word + "\"}";
    return line;
}

}  // namespace ksctl
