// Buffered Unix and TCP stream transports.
#include "OrvoStreamConnection.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "OrvoException.h"
#include "OrvoLogging.h"
#include "OrvoPeerCredentials.h"

namespace OrvoNet {

using OrvoSupport::OrvoException;

namespace {

constexpr std::size_t kInputBufferSize = 64 * 1024;

// Sends all of [p, p+n); counts each send call. Returns 0 or the errno.
int sendAll(int fd, const char* p, std::size_t n, long& nCalls) {
    while (n > 0) {
        ++nCalls;
        ssize_t nSent = ::send(fd, p, n, MSG_NOSIGNAL);
        if (nSent < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        p += nSent;
        n -= static_cast<std::size_t>(nSent);
    }
    return 0;
}

// A refused listener usually stays where it is: one line per uid, not one per call.
void logRefusalOnce(long nUid, const OrvoString& sMessage) {
    static std::atomic<long> s_nLastLogged{-2};
    if (s_nLastLogged.exchange(nUid) != nUid) ORVO_LOG(1, "OrvoStreamConnection::establishImpl: refused: " << sMessage);
}

void closeKeepingErrno(int fd) {
    const int nSaved = errno;
    ::close(fd);
    errno = nSaved;
}

}  // namespace

unsigned pipeAddress(const OrvoString& sPipeName, void* pSockaddrUn) {
    auto* pAddr = static_cast<sockaddr_un*>(pSockaddrUn);
    std::memset(pAddr, 0, sizeof *pAddr);
    pAddr->sun_family = AF_UNIX;
    const std::size_t nLen = sPipeName.size();
    if (sPipeName.find('/') != OrvoString::npos) {
        // A filesystem path, zero-terminated inside sun_path.
        if (nLen + 1 > sizeof pAddr->sun_path) return 0;
        std::memcpy(pAddr->sun_path, sPipeName.data(), nLen);
        return static_cast<unsigned>(offsetof(sockaddr_un, sun_path) + nLen + 1);
    }
    // An abstract name: a leading zero byte, then exactly the name's bytes.
    if (nLen + 1 > sizeof pAddr->sun_path) return 0;
    std::memcpy(pAddr->sun_path + 1, sPipeName.data(), nLen);
    return static_cast<unsigned>(offsetof(sockaddr_un, sun_path) + 1 + nLen);
}

OrvoStreamConnection::OrvoStreamConnection()
    : m_fd(-1), m_bFailed(false), m_bReadSinceWrite(false), m_nSendCalls(0), m_inPos(0), m_inEnd(0) {}

OrvoStreamConnection::~OrvoStreamConnection() {
    if (m_fd >= 0) ::close(m_fd);
}

void OrvoStreamConnection::disconnect() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_bUnverified = false;
    m_bFailed = false;
    m_bReadSinceWrite = false;
    m_bPeerClosed = false;
    m_out.clear();
    m_inPos = m_inEnd = 0;
}

int OrvoStreamConnection::establishImpl(OrvoString& sExceptionMessage) {
    disconnect();
    OrvoString sWhat;
    const int fd = openSocket(sWhat);
    if (fd < 0) {
        const int nCode = errno != 0 ? errno : ECONNREFUSED;
        sExceptionMessage = sWhat + ": " + std::strerror(nCode);
        return nCode;
    }
    // Not a byte goes to a listener that is not the daemon's: while ksd is
    // down anyone may bind its name. The one who answers is then the uid
    // pushes are accepted from (besides root).
    OrvoPeerCredentials peer;
    const bool bKnown = opensUnixSockets() ? unixPeerCredentials(fd, peer) : peerCredentials(fd, peer);
    if (!bKnown || !isTrustedDaemonUid(peer.m_nUid)) {
        ::close(fd);
        const OrvoString sWho =
            bKnown ? "runs as uid " + std::to_string(peer.m_nUid) : OrvoString("has no known owner");
        sExceptionMessage = sWhat + ": the listener " + sWho + ", neither root nor uid " + std::to_string(::geteuid()) +
                            " (KSINTF_DAEMON_UID names another daemon uid)";
        logRefusalOnce(peer.m_nUid, sExceptionMessage);
        return EACCES;
    }
    noteDaemonUid(peer.m_nUid);
    m_fd = fd;
    applyReceiveTimeout();
    if (m_in.size() < kInputBufferSize) m_in.resize(kInputBufferSize);
    return 0;
}

void OrvoStreamConnection::setReceiveTimeout(long nMs) {
    m_nReceiveTimeoutMs = nMs;
    applyReceiveTimeout();
}

// The kernel keeps the deadline on the socket: no extra system call per read.
void OrvoStreamConnection::applyReceiveTimeout() {
    if (m_fd < 0) return;
    timeval tv{};
    if (m_nReceiveTimeoutMs > 0) {
        tv.tv_sec = m_nReceiveTimeoutMs / 1000;
        tv.tv_usec = (m_nReceiveTimeoutMs % 1000) * 1000;
    } else if (m_nReceiveTimeoutMs == 0) {
        tv.tv_usec = 1;  // zero would mean no limit
    }
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

void OrvoStreamConnection::markFailed() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_bUnverified = false;
    m_bFailed = true;
    m_bPeerClosed = false;
    m_out.clear();
    m_inPos = m_inEnd = 0;
}

// Before the first write of a new request: a peer that closed meanwhile, or
// input nobody asked for, means this socket no longer matches the protocol's
// position, so a fresh one is opened. Returns false when reopening failed.
bool OrvoStreamConnection::reopenIfStale(long* error) {
    bool bStale = m_inPos < m_inEnd;
    if (!bStale) {
        char c;
        ssize_t n;
        do n = ::recv(m_fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
        while (n < 0 && errno == EINTR);
        bStale = n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }
    if (!bStale) return true;
    OrvoString sMessage;
    const int nCode = OrvoStreamConnection::establishImpl(sMessage);
    if (nCode != 0) {
        m_bFailed = true;
        *error = nCode;
        return false;
    }
    return true;
}

long OrvoStreamConnection::transfer(const char* buf, long bufLen, long* error) {
    long nDummy = 0;
    if (!error) error = &nDummy;
    *error = 0;
    if (bufLen < 0) {
        *error = EINVAL;
        return 0;
    }
    if (m_fd < 0 || m_bPeerClosed) {
        // Closed or failed: a write opens the transport again.
        OrvoString sMessage;
        const int nCode = OrvoStreamConnection::establishImpl(sMessage);
        if (nCode != 0) {
            m_bFailed = true;
            *error = nCode;
            return 0;
        }
    } else if (m_bReadSinceWrite) {
        // On a Unix socket the first send tells whether the daemon is still
        // there (see sendOut); elsewhere only a look at the socket does.
        if (opensUnixSockets() && m_inPos == m_inEnd)
            m_bUnverified = true;
        else if (!reopenIfStale(error))
            return 0;
    }
    m_bReadSinceWrite = false;

    const auto n = static_cast<std::size_t>(bufLen);
    if (m_out.size() + n < kFlushThreshold) {
        m_out.insert(m_out.end(), buf, buf + n);
        return bufLen;
    }
    // Past the threshold: what is queued goes first, then a large buffer
    // goes straight out instead of through a copy.
    if (!m_out.empty() && sendBuffered(error) != 0) return 0;
    if (n < kFlushThreshold) {
        m_out.insert(m_out.end(), buf, buf + n);
        return bufLen;
    }
    const int nCode = sendOut(buf, n);
    if (nCode != 0) {
        failSending(nCode);
        *error = nCode;
        return 0;
    }
    return bufLen;
}

// A Unix peer that has closed fails a send with nothing delivered, so a
// request whose first send fails that way goes out whole on a fresh socket:
// a restarted daemon costs no probe before each request.
int OrvoStreamConnection::sendOut(const char* p, std::size_t n) {
    if (!m_bUnverified) return sendAll(m_fd, p, n, m_nSendCalls);
    m_bUnverified = false;
    ssize_t nSent;
    do {
        ++m_nSendCalls;
        nSent = ::send(m_fd, p, n, MSG_NOSIGNAL);
    } while (nSent < 0 && errno == EINTR);
    if (nSent >= 0) return sendAll(m_fd, p + nSent, n - static_cast<std::size_t>(nSent), m_nSendCalls);
    if (errno != EPIPE && errno != ECONNRESET) return errno;
    const std::vector<char> request(p, p + n);  // establishImpl empties m_out
    OrvoString sMessage;
    if (const int nCode = OrvoStreamConnection::establishImpl(sMessage); nCode != 0) return nCode;
    return sendAll(m_fd, request.data(), request.size(), m_nSendCalls);
}

// A daemon that refuses a connection writes its error value and closes at
// once; a request sent after that fails, but the error value is still there.
void OrvoStreamConnection::failSending(int nCode) {
    if (m_fd < 0 || (nCode != EPIPE && nCode != ECONNRESET)) {
        markFailed();
        return;
    }
    m_out.clear();
    m_bPeerClosed = true;
    ::shutdown(m_fd, SHUT_WR);
}

int OrvoStreamConnection::sendBuffered(long* error) {
    if (m_out.empty()) return 0;
    if (m_fd < 0) {
        *error = m_bFailed ? EPIPE : ENOTCONN;
        m_out.clear();
        return -1;
    }
    if (m_bPeerClosed) {
        m_out.clear();
        *error = EPIPE;
        return -1;
    }
    const int nCode = sendOut(m_out.data(), m_out.size());
    m_out.clear();
    if (nCode != 0) {
        failSending(nCode);
        *error = nCode;
        return -1;
    }
    return 0;
}

void OrvoStreamConnection::flush() {
    long nError = 0;
    if (sendBuffered(&nError) != 0)
        throw OrvoException(OrvoString("OrvoStreamConnection::flush: ") + std::strerror(static_cast<int>(nError)),
                            static_cast<int>(nError));
}

long OrvoStreamConnection::receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) {
    long nDummy = 0;
    if (!error) error = &nDummy;
    *error = 0;
    if (toRead < 0) {
        *error = EINVAL;
        return 0;
    }
    // The peer cannot answer what it has not been sent, unless it already has.
    if (sendBuffered(error) != 0 && !m_bPeerClosed) return 0;
    *error = 0;
    m_bReadSinceWrite = true;
    if (m_fd < 0) {
        *error = m_bFailed ? ECONNRESET : ENOTCONN;
        return 0;
    }

    long nGot = 0;
    while (nGot < toRead) {
        if (m_inPos < m_inEnd) {
            const std::size_t nTake = std::min(m_inEnd - m_inPos, static_cast<std::size_t>(toRead - nGot));
            std::memcpy(bufPtr + nGot, m_in.data() + m_inPos, nTake);
            m_inPos += nTake;
            nGot += static_cast<long>(nTake);
            continue;
        }
        if (nGot > 0 && !bWaitForAll) break;
        // Large reads land directly in the caller's buffer; small ones refill ours.
        const std::size_t nWant = static_cast<std::size_t>(toRead - nGot);
        const bool bDirect = nWant >= m_in.size();
        ssize_t n = ::recv(m_fd, bDirect ? bufPtr + nGot : m_in.data(), bDirect ? nWant : m_in.size(), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // SO_RCVTIMEO expired: the reply deadline passed.
            *error = n == 0 ? ECONNRESET : (errno == EAGAIN || errno == EWOULDBLOCK) ? ETIMEDOUT : errno;
            markFailed();
            break;
        }
        if (bDirect) {
            nGot += n;
        } else {
            m_inPos = 0;
            m_inEnd = static_cast<std::size_t>(n);
        }
    }
    return nGot;
}

int OrvoStreamConnection::peekBytes(void* pBuffer, int& nSize, int& nErrorCode) {
    nErrorCode = 0;
    long nError = 0;
    if (sendBuffered(&nError) != 0 && !m_bPeerClosed) {
        nErrorCode = static_cast<int>(nError);
        nSize = 0;
        return -1;
    }
    if (m_fd < 0) {
        nErrorCode = m_bFailed ? ECONNRESET : ENOTCONN;
        nSize = 0;
        return -1;
    }
    const std::size_t nWant = nSize > 0 ? static_cast<std::size_t>(nSize) : 0;
    if (m_inEnd - m_inPos < nWant) {
        // Compact, then take whatever has arrived without waiting.
        std::memmove(m_in.data(), m_in.data() + m_inPos, m_inEnd - m_inPos);
        m_inEnd -= m_inPos;
        m_inPos = 0;
        ssize_t n;
        do n = ::recv(m_fd, m_in.data() + m_inEnd, m_in.size() - m_inEnd, MSG_DONTWAIT);
        while (n < 0 && errno == EINTR);
        if (n > 0) {
            m_inEnd += static_cast<std::size_t>(n);
        } else if (m_inEnd == 0 && (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))) {
            nErrorCode = n == 0 ? ECONNRESET : errno;
            nSize = 0;
            markFailed();
            return -1;
        }
    }
    const std::size_t nCopy = std::min(nWant, m_inEnd - m_inPos);
    std::memcpy(pBuffer, m_in.data() + m_inPos, nCopy);
    nSize = static_cast<int>(nCopy);
    return 0;
}

OrvoPipeConnection::OrvoPipeConnection(const OrvoString& sPipeName) : m_sPipeName(sPipeName) {}

OrvoPipeConnection::~OrvoPipeConnection() = default;

int OrvoPipeConnection::openSocket(OrvoString& sWhat) {
    sWhat = "OrvoPipeConnection: connecting to pipe '" + m_sPipeName + "'";
    sockaddr_un addr;
    const unsigned nLen = pipeAddress(m_sPipeName, &addr);
    if (nLen == 0) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int r;
    do r = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), nLen);
    while (r != 0 && errno == EINTR);
    if (r != 0) {
        closeKeepingErrno(fd);
        return -1;
    }
    return fd;
}

OrvoSocketConnection::OrvoSocketConnection(const OrvoString& sHost, int nPort, bool bNoDelay, bool bKeepAlive)
    : m_sHost(sHost), m_nPort(nPort), m_bNoDelay(bNoDelay), m_bKeepAlive(bKeepAlive) {}

OrvoSocketConnection::~OrvoSocketConnection() = default;

int OrvoSocketConnection::openSocket(OrvoString& sWhat) {
    const OrvoString sHost = m_sHost.empty() ? OrvoString("127.0.0.1") : m_sHost;
    sWhat = "OrvoSocketConnection: connecting to '" + sHost + "' port " + std::to_string(m_nPort);
    if (m_nPort < 0 || m_nPort > 65535) {
        errno = EINVAL;
        return -1;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* pList = nullptr;
    if (::getaddrinfo(sHost.c_str(), std::to_string(m_nPort).c_str(), &hints, &pList) != 0 || !pList) {
        errno = EHOSTUNREACH;
        return -1;
    }
    int fd = -1;
    int nLastError = ECONNREFUSED;
    for (addrinfo* p = pList; p; p = p->ai_next) {
        fd = ::socket(p->ai_family, p->ai_socktype | SOCK_CLOEXEC, p->ai_protocol);
        if (fd < 0) {
            nLastError = errno;
            continue;
        }
        int r;
        do r = ::connect(fd, p->ai_addr, p->ai_addrlen);
        while (r != 0 && errno == EINTR);
        if (r == 0) break;
        nLastError = errno;
        ::close(fd);
        fd = -1;
    }
    ::freeaddrinfo(pList);
    if (fd < 0) {
        errno = nLastError;
        return -1;
    }
    const int one = 1;
    if (m_bNoDelay) ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (m_bKeepAlive) ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one);
    return fd;
}

}  // namespace OrvoNet
