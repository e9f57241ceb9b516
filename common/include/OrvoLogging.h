#ifndef ORVO_LOGGING_H
#define ORVO_LOGGING_H

#include <functional>
#include <mutex>

#include "OrvoString.h"

namespace OrvoSupport {

// Manipulator that sets the level of the record being streamed.
struct setloglevel {
    explicit setloglevel(int nLevel) : m_nLevel(nLevel) {}
    int m_nLevel;
};

// End-of-record manipulator: hands the record built so far to the sink.
struct OrvoEndRecord {};
inline constexpr OrvoEndRecord endrec{};

// Process-wide logger. A record is streamed piece by piece on one thread
// (each thread builds its own record) and written whole at `endrec`.
// Environment (read once, at first use):
//   OSUPT_LOG_LEVEL  threshold, records with a level above it are not made (default 1):
//                    a level name or a number
// Every line names its record's level: notice (0, always shown), error (1),
// warning (2-4), info (5-7), debug (8), trace (9 and above).
//   OSUPT_LOG_FILE   append records to this file instead of stderr
class ORVO_SUPPORT_API OrvoLogging {
public:
    using Sink = std::function<void(int nLevel, const OrvoString& sRecord)>;

    static OrvoLogging& getInstance();
    // True unless the logger has been torn down. It is never torn down in a
    // running process (leaked on purpose), so static destructors may log.
    static bool isAccessAllowed();

    int getLogLevel() const;
    void setLogLevel(int nLevel);

    // The name records of `nLevel` carry: "notice", "error", "warning", "info", "debug" or "trace".
    static const char* levelName(int nLevel);
    // The threshold a level name (any case; it admits every record of that name) or a
    // number 0-1000 stands for; -1 for anything else.
    static int parseLevel(const char* pszText);

    // Replaces the destination of finished records; an empty sink restores
    // the default (stderr or OSUPT_LOG_FILE). Tests use it to capture records.
    void setSink(Sink sink);

    // Opens OSUPT_LOG_FILE anew in place of the one in use, so that records
    // follow a log rotation. False when no file is named or it cannot be opened.
    bool reopenFile();

    OrvoLogging& operator<<(const setloglevel& level);
    OrvoLogging& operator<<(const OrvoEndRecord&);
    OrvoLogging& operator<<(const OrvoString& s);
    OrvoLogging& operator<<(const char* psz);
    OrvoLogging& operator<<(char c);
    OrvoLogging& operator<<(int n);
    OrvoLogging& operator<<(unsigned int n);
    OrvoLogging& operator<<(long n);
    OrvoLogging& operator<<(unsigned long n);
    OrvoLogging& operator<<(long long n);
    OrvoLogging& operator<<(short n);
    OrvoLogging& operator<<(bool b);
    OrvoLogging& operator<<(const void* p);

    ~OrvoLogging();

private:
    OrvoLogging();
    OrvoLogging(const OrvoLogging&) = delete;
    OrvoLogging& operator=(const OrvoLogging&) = delete;
    void write(int nLevel, const OrvoString& sRecord);

    struct Impl;
    Impl* m_pImpl;
};

}  // namespace OrvoSupport

// Streams one record only when logging is reachable and the threshold admits
// the level; nothing is formatted otherwise.
#define ORVO_LOG(level, pieces)                                                              \
    do {                                                                                     \
        if (::OrvoSupport::OrvoLogging::isAccessAllowed() &&                                 \
            ::OrvoSupport::OrvoLogging::getInstance().getLogLevel() >= (level)) {            \
            ::OrvoSupport::OrvoLogging::getInstance()                                        \
                << ::OrvoSupport::setloglevel(level) << pieces << ::OrvoSupport::endrec;     \
        }                                                                                    \
    } while (0)

#endif
