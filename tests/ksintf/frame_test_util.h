// Helpers of the frame and notification-network tests: log capture, and
// plain listeners on fixed addresses (the default pipe, the empty name, TCP
// port 1311) run inside a private network namespace.
#ifndef KSINTF_TESTS_FRAME_TEST_UTIL_H
#define KSINTF_TESTS_FRAME_TEST_UTIL_H

#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "OrvoException.h"
#include "OrvoLogging.h"

namespace frametest {

using Records = std::vector<std::pair<int, std::string>>;

// Captures every finished log record (level and bare text) at threshold 9.
class LogCapture {
public:
    LogCapture() {
        OrvoSupport::OrvoLogging::getInstance().setLogLevel(9);
        OrvoSupport::OrvoLogging::getInstance().setSink([this](int nLevel, const std::string& s) {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_records.emplace_back(nLevel, s);
        });
    }
    ~LogCapture() {
        OrvoSupport::OrvoLogging::getInstance().setSink({});
        OrvoSupport::OrvoLogging::getInstance().setLogLevel(0);
    }
    Records records() const {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_records;
    }
    // Records that start with sPrefix.
    Records startingWith(const std::string& sPrefix) const {
        Records found;
        for (const auto& r : records())
            if (r.second.compare(0, sPrefix.size(), sPrefix) == 0) found.push_back(r);
        return found;
    }

private:
    mutable std::mutex m_mutex;
    Records m_records;
};

// "<message> <code>" of the OrvoException that f throws, or "none".
inline std::string failureOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const OrvoSupport::OrvoException& e) {
        return e.getMessage() + " " + std::to_string(e.getCode());
    }
    return "none";
}

// A listener on 127.0.0.1:nPort (bTcp) or on the abstract name sName, bound
// with the exact address length so that the empty name is a name of its own.
inline int listenOn(bool bTcp, const std::string& sName, int nPort) {
    const int fd = socket(bTcp ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;  // a port in TIME_WAIT from the case before may be bound again
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in in{AF_INET, htons(static_cast<uint16_t>(nPort)), {htonl(INADDR_LOOPBACK)}, {}};
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    std::memcpy(un.sun_path + 1, sName.data(), std::min(sName.size(), sizeof un.sun_path - 1));
    const auto* pAddr = bTcp ? reinterpret_cast<sockaddr*>(&in) : reinterpret_cast<sockaddr*>(&un);
    const auto nLen = static_cast<socklen_t>(bTcp ? sizeof in : offsetof(sockaddr_un, sun_path) + 1 + sName.size());
    if (bind(fd, pAddr, nLen) == 0 && listen(fd, 8) == 0) return fd;
    close(fd);
    return -1;
}

// Runs fn in a forked child inside a new network namespace with the loopback
// up, so that fixed addresses cannot meet a real daemon or another test. fn
// returns "" on success or what failed, which the child prints. Returns 0
// when fn succeeded, 1 when it failed, 2 when the system gives no namespace.
inline int runInPrivateNetwork(const std::function<std::string()>& fn) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (unshare(CLONE_NEWNET) != 0) _exit(2);
        const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq ifr{};
        std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
        if (ioctl(s, SIOCGIFFLAGS, &ifr) == 0) {
            ifr.ifr_flags |= IFF_UP;
            ioctl(s, SIOCSIFFLAGS, &ifr);
        }
        const std::string sFailure = fn();
        if (!sFailure.empty()) std::fprintf(stderr, "in the private network: %s\n", sFailure.c_str());
        _exit(sFailure.empty() ? 0 : 1);
    }
    int nStatus = 0;
    waitpid(pid, &nStatus, 0);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 1;
}

}  // namespace frametest

#endif
