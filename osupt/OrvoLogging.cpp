// Process-wide logger: per-thread record building, whole-record output.

#include "OrvoLogging.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace OrvoSupport {

namespace {

constexpr int kDefaultLevel = 1;

// Set only if the logger is ever destroyed; the singleton is leaked so that
// static destructors and unloading libraries can still log.
std::atomic<bool> g_bShutDown{false};

// The record a thread is streaming. Held through a plain pointer so that a
// record streamed after the thread's own thread_local destructors ran (a
// static destructor on the main thread) still finds storage.
struct RecordState {
    int nLevel = 0;
    OrvoString sText;  // the bare record, reused from record to record
    OrvoString sLine;  // prefix + record + newline for the default destination
    bool bInSink = false;
};

thread_local RecordState* t_pState = nullptr;
thread_local bool t_bReclaimed = false;

struct RecordStateReclaimer {
    ~RecordStateReclaimer() {
        delete t_pState;
        t_pState = nullptr;
        t_bReclaimed = true;
    }
};

RecordState& recordState() {
    if (t_pState == nullptr) {
        t_pState = new RecordState;
        // After reclamation the state of this late record stays for the
        // thread's last moments: the reclaimer cannot be registered twice.
        if (!t_bReclaimed) {
            thread_local RecordStateReclaimer reclaimer;
            (void)reclaimer;
        }
    }
    return *t_pState;
}

template <class N>
void appendNumber(OrvoString& s, N n, int nBase = 10) {
    char buf[32];
    auto result = std::to_chars(buf, buf + sizeof(buf), n, nBase);
    s.append(buf, result.ptr);
}

long currentTid() {
    thread_local long t_nTid = static_cast<long>(::syscall(SYS_gettid));
    return t_nTid;
}

void appendPrefix(OrvoString& sLine, int nLevel) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char buf[64];
    int n = std::snprintf(buf, sizeof(buf), "%04d-%02d-%02d %02d:%02d:%02d.%03ld [", local.tm_year + 1900,
                          local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                          now.tv_nsec / 1000000L);
    sLine.append(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
    sLine += OrvoLogging::levelName(nLevel);
    sLine += "] [";
    appendNumber(sLine, static_cast<long>(::getpid()));
    sLine += ':';
    appendNumber(sLine, currentTid());
    sLine += "] ";
}

void writeAll(int fd, const char* p, std::size_t n) {
    while (n > 0) {
        ssize_t nWritten = ::write(fd, p, n);
        if (nWritten < 0) {
            if (errno == EINTR) continue;
            return;  // nowhere left to report a failing log destination
        }
        p += nWritten;
        n -= static_cast<std::size_t>(nWritten);
    }
}

// Each name as a threshold admits every record that carries it.
constexpr std::pair<const char*, int> kLevelNames[] = {{"notice", 0}, {"error", 1}, {"warning", 4},
                                                       {"info", 7},   {"debug", 8}, {"trace", 9}};

}  // namespace

struct OrvoLogging::Impl {
    std::atomic<int> nLevel{kDefaultLevel};
    std::mutex mutex;  // serialises destinations and sink changes
    Sink sink;
    int fd = STDERR_FILENO;
};

OrvoLogging::OrvoLogging() : m_pImpl(new Impl) {
    if (const char* pszLevel = std::getenv("OSUPT_LOG_LEVEL"); pszLevel != nullptr && *pszLevel != '\0') {
        const int nLevel = parseLevel(pszLevel);
        if (nLevel >= 0) {
            m_pImpl->nLevel.store(nLevel);
        } else {
            std::fprintf(stderr,
                         "OrvoLogging: OSUPT_LOG_LEVEL=%s is not a level (notice, error, warning, info, "
                         "debug, trace or a number), using %d\n",
                         pszLevel, kDefaultLevel);
        }
    }
    if (const char* pszFile = std::getenv("OSUPT_LOG_FILE"); pszFile != nullptr && *pszFile != '\0') {
        int fd = ::open(pszFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd >= 0) {
            m_pImpl->fd = fd;
        } else {
            std::fprintf(stderr, "OrvoLogging: cannot open OSUPT_LOG_FILE %s, logging to stderr\n", pszFile);
        }
    }
}

OrvoLogging::~OrvoLogging() {
    g_bShutDown.store(true);
    if (m_pImpl->fd != STDERR_FILENO) ::close(m_pImpl->fd);
    delete m_pImpl;
}

OrvoLogging& OrvoLogging::getInstance() {
    static OrvoLogging* pInstance = new OrvoLogging;
    return *pInstance;
}

bool OrvoLogging::isAccessAllowed() { return !g_bShutDown.load(std::memory_order_relaxed); }

int OrvoLogging::getLogLevel() const { return m_pImpl->nLevel.load(std::memory_order_relaxed); }

// Never below 0: notices are shown at every threshold.
void OrvoLogging::setLogLevel(int nLevel) { m_pImpl->nLevel.store(nLevel < 0 ? 0 : nLevel, std::memory_order_relaxed); }

const char* OrvoLogging::levelName(int nLevel) {
    if (nLevel <= 0) return "notice";
    if (nLevel == 1) return "error";
    if (nLevel <= 4) return "warning";
    if (nLevel <= 7) return "info";
    return nLevel == 8 ? "debug" : "trace";
}

int OrvoLogging::parseLevel(const char* pszText) {
    if (pszText == nullptr || *pszText == '\0') return -1;
    for (const auto& [pszName, nLevel] : kLevelNames) {
        if (::strcasecmp(pszText, pszName) == 0) return nLevel;
    }
    if (*pszText < '0' || *pszText > '9') return -1;  // strtol would take a sign or blanks
    char* pszEnd = nullptr;
    const long nLevel = std::strtol(pszText, &pszEnd, 10);
    if (*pszEnd != '\0' || nLevel > 1000) return -1;
    return static_cast<int>(nLevel);
}

void OrvoLogging::setSink(Sink sink) {
    std::lock_guard<std::mutex> hold(m_pImpl->mutex);
    m_pImpl->sink = std::move(sink);
}

bool OrvoLogging::reopenFile() {
    const char* pszFile = std::getenv("OSUPT_LOG_FILE");
    if (pszFile == nullptr || *pszFile == '\0') return false;
    int fd = ::open(pszFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    std::lock_guard<std::mutex> hold(m_pImpl->mutex);
    if (m_pImpl->fd == STDERR_FILENO) {
        m_pImpl->fd = fd;
        return true;
    }
    // Same number, new file: a writer that read the number before the lock
    // writes to the new file, never to a closed or reused descriptor.
    const bool bOk = ::dup3(fd, m_pImpl->fd, O_CLOEXEC) >= 0;
    ::close(fd);
    return bOk;
}

OrvoLogging& OrvoLogging::operator<<(const setloglevel& level) {
    RecordState& state = recordState();
    state.nLevel = level.m_nLevel;
    state.sText.clear();
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(const OrvoEndRecord&) {
    RecordState& state = recordState();
    // Hand-streamed records obey the threshold too; a record logged from
    // inside a sink is dropped, it would overwrite the one being delivered.
    if (state.nLevel <= getLogLevel() && !state.bInSink) write(state.nLevel, state.sText);
    state.sText.clear();
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(const OrvoString& s) {
    recordState().sText += s;
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(const char* psz) {
    recordState().sText += (psz != nullptr ? psz : "(null)");
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(char c) {
    recordState().sText += c;
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(int n) {
    appendNumber(recordState().sText, n);
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(unsigned int n) {
    appendNumber(recordState().sText, n);
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(long n) {
    appendNumber(recordState().sText, n);
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(unsigned long n) {
    appendNumber(recordState().sText, n);
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(long long n) {
    appendNumber(recordState().sText, n);
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(short n) {
    appendNumber(recordState().sText, n);
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(bool b) {
    recordState().sText += (b ? "true" : "false");
    return *this;
}

OrvoLogging& OrvoLogging::operator<<(const void* p) {
    OrvoString& s = recordState().sText;
    s += "0x";
    appendNumber(s, reinterpret_cast<std::uintptr_t>(p), 16);
    return *this;
}

void OrvoLogging::write(int nLevel, const OrvoString& sRecord) {
    RecordState& state = recordState();
    std::unique_lock<std::mutex> hold(m_pImpl->mutex);
    if (m_pImpl->sink) {
        // Called under the mutex so that once setSink() returns the old sink
        // (and whatever it captured) is never called again.
        state.bInSink = true;
        try {
            m_pImpl->sink(nLevel, sRecord);
        } catch (...) {
            state.bInSink = false;
            throw;
        }
        state.bInSink = false;
        return;
    }
    int fd = m_pImpl->fd;
    hold.unlock();

    // The line is built outside the lock; only the single write is serialised.
    state.sLine.clear();
    appendPrefix(state.sLine, nLevel);
    state.sLine += sRecord;
    state.sLine += '\n';
    hold.lock();
    writeAll(fd, state.sLine.data(), state.sLine.size());
}

}  // namespace OrvoSupport
