#include "services/daemon_event.h"

namespace ksd {

namespace {

std::string_view prefixOf(EventFamily family) {
    switch (family) {
        case EventFamily::Task:
            return "OrvoTSEvent:";
        case EventFamily::Lock:
            return "OrvoRAEvent:";
        case EventFamily::Job:
            break;
    }
    return "OrvoJSEvent:";
}

}  // namespace

std::string daemonEventName(EventFamily family, std::string_view subject) {
    const std::string_view prefix = prefixOf(family);
    std::string name;
    name.reserve(prefix.size() + subject.size() + 1);
    name.append(prefix).append(subject).push_back('$');
    return name;
}

const std::string& aggregateEventName(EventFamily family) {
    static const std::string kTasks = std::string(prefixOf(EventFamily::Task)) + "*";
    static const std::string kLocks = std::string(prefixOf(EventFamily::Lock)) + "*";
    static const std::string kJobs = std::string(prefixOf(EventFamily::Job)) + "*";
    switch (family) {
        case EventFamily::Task:
            return kTasks;
        case EventFamily::Lock:
            return kLocks;
        case EventFamily::Job:
            break;
    }
    return kJobs;
}

}  // namespace ksd
