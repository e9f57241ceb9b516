#include "log_setup.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "OrvoLogging.h"

namespace ksd {

using OrvoSupport::OrvoLogging;

std::optional<int> parseLogLevel(std::string_view text) {
    const int level = OrvoLogging::parseLevel(std::string(text).c_str());
    if (level < 0) return std::nullopt;
    return level;
}

int syslogPriority(int level) {
    if (level <= 0) return LOG_NOTICE;
    if (level == 1) return LOG_ERR;
    if (level <= 4) return LOG_WARNING;
    if (level <= 7) return LOG_INFO;
    return LOG_DEBUG;
}

void logToSyslog() {
    ::openlog("ksd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    OrvoLogging::getInstance().setSink([](int level, const OrvoSupport::OrvoString& record) {
        ::syslog(syslogPriority(level), "[%s] %s", OrvoLogging::levelName(level), record.c_str());
    });
}

bool logToJournalStream() {
    // The journal names its stream "device:inode"; a redirected stderr is another file.
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat st {};
    unsigned long long device = 0, inode = 0;
    if (stream == nullptr || std::sscanf(stream, "%llu:%llu", &device, &inode) != 2 ||
        ::fstat(STDERR_FILENO, &st) != 0 || st.st_dev != device || st.st_ino != inode)
        return false;
    OrvoLogging::getInstance().setSink(
        [line = std::string()](int level, const OrvoSupport::OrvoString& record) mutable {
            // Called under the logger's lock: one line, one write, the buffer reused.
            line.assign(1, '<');
            line += std::to_string(syslogPriority(level));
            line += ">[";
            line += OrvoLogging::levelName(level);
            line += "] ";
            line += record;
            line += '\n';
            for (std::size_t done = 0; done < line.size();) {
                const ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
                if (n <= 0) return;
                done += static_cast<std::size_t>(n);
            }
        });
    return true;
}

bool logFileNamed() {
    const char* file = std::getenv("OSUPT_LOG_FILE");
    return file != nullptr && *file != '\0';
}

}  // namespace ksd
