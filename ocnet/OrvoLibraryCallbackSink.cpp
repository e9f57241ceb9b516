// The listener thread that receives pushed callback frames and dispatches
// them by id. One poll() covers the listening socket, every push connection
// and an eventfd that asks the thread to stop.
#include "OrvoLibraryCallbackSink.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "OrvoCodec.h"
#include "OrvoException.h"
#include "OrvoLogging.h"
#include "OrvoPayloadConnection.h"
#include "OrvoPeerCredentials.h"
#include "OrvoProtocol.h"
#include "OrvoStreamConnection.h"

namespace OrvoNet {

using OrvoSupport::OrvoException;

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;

// One accepted push connection and its not yet dispatched bytes,
// buffer[begin, end). Frames are read in bulk straight into the buffer and
// handed to their callback where they lie.
struct PushConnection {
    int fd = -1;
    std::unique_ptr<char[]> buffer;
    std::size_t capacity = 0;
    std::size_t begin = 0;
    std::size_t end = 0;

    // Room for at least nMore bytes after end: the undispatched bytes move
    // to the front, and the buffer grows only for a frame larger than it.
    void reserve(std::size_t nMore) {
        if (capacity - end >= nMore) return;
        const std::size_t nKept = end - begin;
        if (nKept + nMore <= capacity && buffer) {
            std::memmove(buffer.get(), buffer.get() + begin, nKept);
        } else {
            const std::size_t nNew = std::max(capacity * 2, nKept + nMore);
            std::unique_ptr<char[]> grown(new char[nNew]);
            if (nKept != 0) std::memcpy(grown.get(), buffer.get() + begin, nKept);
            buffer = std::move(grown);
            capacity = nNew;
        }
        begin = 0;
        end = nKept;
    }
};

enum class FrameStatus { complete, incomplete, malformed };

// Looks for one whole frame in p[0, nAvail). Once the header is whole, the
// payload's offset and size are set (and nId on `complete`); on `malformed`,
// sWhy says what was wrong.
FrameStatus parseFrame(const char* p, std::size_t nAvail, int& nId, std::size_t& nPayloadAt,
                       std::size_t& nPayloadSize, std::string& sWhy) {
    std::int32_t fields[2];
    std::size_t nAt = 0;
    for (int i = 0; i < 2; ++i) {
        if (nAvail <= nAt) return FrameStatus::incomplete;
        // The tag alone decides: a frame is two ints and nothing else.
        if (p[nAt] != Codec::kTagInt) {
            sWhy = std::string("expected an int, got tag ") + std::to_string(static_cast<unsigned char>(p[nAt]));
            return FrameStatus::malformed;
        }
        Codec::Value value;
        std::size_t nUsed = 0;
        int nError = 0;
        if (Codec::decode(p + nAt, nAvail - nAt, value, nUsed, nError) != Codec::Result::good)
            return FrameStatus::incomplete;
        fields[i] = static_cast<std::int32_t>(value.integer);
        nAt += nUsed;
    }
    if (fields[1] < 0 || static_cast<std::uint32_t>(fields[1]) > Codec::kMaxPushPayload) {
        sWhy = "payload length " + std::to_string(fields[1]) + " out of range";
        return FrameStatus::malformed;
    }
    static_assert(Protocol::kPushFrameHeaderSize == 2 * (1 + sizeof(std::int32_t)), "a header is two tagged ints");
    nPayloadSize = static_cast<std::size_t>(fields[1]);
    nPayloadAt = nAt;
    if (nAvail - nAt < nPayloadSize) return FrameStatus::incomplete;
    nId = fields[0];
    return FrameStatus::complete;
}

constexpr int kNameTries = 4;

// 64 bits from the kernel's generator, as hex.
std::string randomHex() {
    std::uint64_t nBits = 0;
    for (std::size_t nGot = 0; nGot < sizeof nBits;) {
        const ssize_t n = ::getrandom(reinterpret_cast<char*>(&nBits) + nGot, sizeof nBits - nGot, 0);
        if (n < 0 && errno != EINTR) throw OrvoException("OrvoLibraryCallbackSink: getrandom failed", errno);
        if (n > 0) nGot += static_cast<std::size_t>(n);
    }
    char sz[17];
    std::snprintf(sz, sizeof sz, "%016llx", static_cast<unsigned long long>(nBits));
    return sz;
}

int listenOn(bool bTcp, const std::string& sName, int& nPort) {
    const int fd = ::socket(bTcp ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    int r;
    if (bTcp) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t nLen = sizeof addr;
        r = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), nLen);
        if (r == 0) r = ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &nLen);
        nPort = ntohs(addr.sin_port);
    } else {
        sockaddr_un addr;
        const unsigned nLen = pipeAddress(sName, &addr);
        r = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), nLen);
    }
    if (r == 0) r = ::listen(fd, SOMAXCONN);
    if (r != 0) {
        const int nSaved = errno;
        ::close(fd);
        errno = nSaved;
        return -1;
    }
    return fd;
}

}  // namespace

OrvoLibraryCallbackSink::OrvoLibraryCallbackSink(const OrvoString& sSinkName)
    : OrvoThread(sSinkName), m_listenFd(-1), m_wakeFd(-1), m_bStopping(false), m_nDispatched(0) {}

OrvoLibraryCallbackSink::~OrvoLibraryCallbackSink() { stop(); }

OrvoString OrvoLibraryCallbackSink::getCallbackAddress() {
    std::lock_guard<std::mutex> lock(m_startMutex);
    if (m_sAddress.empty()) startListener();
    return m_sAddress;
}

void OrvoLibraryCallbackSink::startListener() {
    const char* pszType = std::getenv("OCNET_CALLBACK_TYPE");
    const bool bTcp = pszType && std::strcmp(pszType, "socket") == 0;
    // A name another user could guess could be bound before us; a taken
    // one (unlikely with 64 random bits) is retried with a fresh name.
    std::string sName;
    int nPort = 0;
    int fd = -1;
    for (int nTry = 0; nTry < kNameTries && fd < 0; ++nTry) {
        sName = "ksintf-cb-" + std::to_string(::getpid()) + "-" + randomHex();
        fd = listenOn(bTcp, sName, nPort);
        if (fd < 0 && errno != EADDRINUSE) break;
    }
    if (fd < 0) {
        const int nCode = errno;
        throw OrvoException(OrvoString("OrvoLibraryCallbackSink: cannot listen for callbacks: ") + std::strerror(nCode),
                            nCode);
    }
    const int wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd < 0) {
        const int nCode = errno;
        ::close(fd);
        throw OrvoException(OrvoString("OrvoLibraryCallbackSink: eventfd: ") + std::strerror(nCode), nCode);
    }
    m_listenFd = fd;
    m_wakeFd = wakeFd;
    m_sAddress = bTcp ? "socket:127.0.0.1:" + std::to_string(nPort) : "pipe:" + sName;
    ORVO_LOG(9, "OrvoLibraryCallbackSink::startListener: listening on " << m_sAddress);
    if (!start()) {
        m_sAddress.clear();
        ::close(m_listenFd);
        ::close(m_wakeFd);
        m_listenFd = m_wakeFd = -1;
        throw OrvoException("OrvoLibraryCallbackSink: cannot start the listener thread", EAGAIN);
    }
}

void OrvoLibraryCallbackSink::stop() {
    {
        std::lock_guard<std::mutex> lock(m_startMutex);
        if (m_wakeFd < 0 || m_bStopping.exchange(true)) return;
        const std::uint64_t nOne = 1;
        [[maybe_unused]] ssize_t n = ::write(m_wakeFd, &nOne, sizeof nOne);
    }
    // Joined without the lock: a callback that asks for the address while
    // the sink stops must not deadlock against this thread.
    join();
    std::lock_guard<std::mutex> lock(m_startMutex);
    ::close(m_listenFd);
    ::close(m_wakeFd);
    m_listenFd = m_wakeFd = -1;
}

void OrvoLibraryCallbackSink::run() {
    std::vector<PushConnection> connections;
    std::vector<pollfd> fds;
    std::vector<char> chunk(kReadChunk);

    auto closeConnection = [&](std::size_t i) {
        ::close(connections[i].fd);
        connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(i));
    };

    while (!m_bStopping.load()) {
        fds.clear();
        fds.push_back({m_wakeFd, POLLIN, 0});
        fds.push_back({m_listenFd, POLLIN, 0});
        for (const auto& c : connections) fds.push_back({c.fd, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            ORVO_LOG(4, "OrvoLibraryCallbackSink::run: poll failed: " << std::strerror(errno));
            break;
        }
        if (fds[0].revents) break;

        // Connections first (fds[2..]), from the back so that closing one
        // leaves the indexes of the others unchanged.
        for (std::size_t i = connections.size(); i-- > 0;) {
            if (!fds[i + 2].revents) continue;
            PushConnection& c = connections[i];
            c.reserve(kReadChunk);
            ssize_t n;
            do n = ::recv(c.fd, c.buffer.get() + c.end, c.capacity - c.end, MSG_DONTWAIT);
            while (n < 0 && errno == EINTR);
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;
            if (n <= 0) {
                if (c.begin < c.end)
                    ORVO_LOG(4, "OrvoLibraryCallbackSink::run: push connection ended inside a frame");
                ORVO_LOG(9, "OrvoLibraryCallbackSink::run: push connection closed");
                closeConnection(i);
                continue;
            }
            c.end += static_cast<std::size_t>(n);

            bool bMalformed = false;
            for (;;) {
                int nId = 0;
                std::size_t nAt = 0, nSize = 0;
                std::string sWhy;
                const char* p = c.buffer.get() + c.begin;
                const FrameStatus status = parseFrame(p, c.end - c.begin, nId, nAt, nSize, sWhy);
                if (status == FrameStatus::incomplete) {
                    // A frame larger than the buffer gets room for all of it.
                    if (nSize > 0) c.reserve(nAt + nSize - (c.end - c.begin));
                    break;
                }
                if (status == FrameStatus::malformed) {
                    ORVO_LOG(4, "OrvoLibraryCallbackSink::run: malformed frame, closing the push connection: " << sWhy);
                    bMalformed = true;
                    break;
                }
                dispatch(p + nAt, nSize, nId);
                c.begin += nAt + nSize;
                if (m_bStopping.load()) break;
            }
            if (bMalformed) {
                closeConnection(i);
                continue;
            }
            if (c.begin == c.end) c.begin = c.end = 0;
        }

        if (fds[1].revents & POLLIN) {
            for (;;) {
                const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (fd < 0) break;
                if (!isTrustedPeer(fd)) {
                    ::close(fd);
                    continue;
                }
                connections.emplace_back().fd = fd;
                ORVO_LOG(9, "OrvoLibraryCallbackSink::run: accepted a push connection");
            }
        }
    }
    for (auto& c : connections) ::close(c.fd);
}

// Only the daemon (the uid our request connections reached) and root may
// push: anyone else could forge events for our callbacks.
bool OrvoLibraryCallbackSink::isTrustedPeer(int fd) {
    OrvoPeerCredentials peer;
    if (!peerCredentials(fd, peer)) {
        ORVO_LOG(4, "OrvoLibraryCallbackSink::run: refusing a push connection whose owner cannot be learnt");
        return false;
    }
    if (peer.m_nUid == 0 || (peer.m_nUid == daemonUid() && peer.m_nUid >= 0)) return true;
    ORVO_LOG(4, "OrvoLibraryCallbackSink::run: refusing a push connection from pid " << peer.m_nPid << " uid "
                                                                                      << peer.m_nUid);
    return false;
}

void OrvoLibraryCallbackSink::dispatch(const char* pPayload, std::size_t nSize, int nId) {
    OrvoNotificationCallbackSP spCallback = m_container.lookup(nId);
    if (!spCallback) {
        ORVO_LOG(9, "OrvoLibraryCallbackSink::dispatch: no callback with id " << nId << ", frame dropped");
        return;
    }
    // The callback reads the frame where it lies in the connection's buffer.
    OrvoSmartPointer<OrvoConnection> spConnection(new OrvoPayloadConnection(pPayload, nSize));
    try {
        spCallback->callback(spConnection);
    } catch (const OrvoException& e) {
        ORVO_LOG(4, "OrvoLibraryCallbackSink::dispatch: callback " << nId << " failed: message = |" << e.getMessage()
                                                                  << "|, error code = " << e.getCode());
    } catch (const std::exception& e) {
        ORVO_LOG(4, "OrvoLibraryCallbackSink::dispatch: callback " << nId << " failed: " << e.what());
    } catch (...) {
        ORVO_LOG(4, "OrvoLibraryCallbackSink::dispatch: callback " << nId << " failed with an unknown exception");
    }
    ++m_nDispatched;
}

}  // namespace OrvoNet
