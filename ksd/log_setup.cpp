#include "log_setup.h"

#include <syslog.h>

#include <array>
#include <cctype>
#include <cstdlib>
#include <string>
#include <utility>

#include "OrvoLogging.h"

namespace ksd {

namespace {

constexpr std::array<std::pair<std::string_view, int>, 5> kNamedLevels{{
    {"error", kLogError},
    {"warning", kLogWarning},
    {"info", kLogInfo},
    {"debug", kLogDebug},
    {"trace", kLogTrace},
}};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) != b[i]) return false;
    }
    return true;
}

}  // namespace

std::optional<int> parseLogLevel(std::string_view text) {
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '9') return text[0] - '0';
    for (const auto& [name, level] : kNamedLevels) {
        if (equalsIgnoringCase(text, name)) return level;
    }
    return std::nullopt;
}

int syslogPriority(int level) {
    // Level 1 carries the start and stop lines as well as problems: notice
    // keeps them visible without calling every one an error.
    if (level <= kLogError) return LOG_NOTICE;
    if (level <= kLogInfo) return LOG_INFO;
    return LOG_DEBUG;
}

void logToSyslog() {
    ::openlog("ksd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    OrvoSupport::OrvoLogging::getInstance().setSink([](int level, const OrvoSupport::OrvoString& record) {
        ::syslog(syslogPriority(level), "%s", record.c_str());
    });
}

bool logFileNamed() {
    const char* file = std::getenv("OSUPT_LOG_FILE");
    return file != nullptr && *file != '\0';
}

}  // namespace ksd
