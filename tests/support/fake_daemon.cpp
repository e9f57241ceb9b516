// FakeDaemon: listener, per-connection request reader and scripted replies.
// See fake_daemon.h for what it promises.
#include "fake_daemon.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>

namespace kstest {

namespace Codec = OrvoNet::Codec;

struct FakeDaemon::Conn {
    int fd = -1;              // guarded by the daemon's mutex once published
    int serial = 0;
    std::string bytes;        // everything received, guarded by the daemon's mutex
    std::string in;           // not yet decoded; the connection thread's own
};

namespace {

constexpr long kMaxRawRun = 64L * 1024 * 1024;

enum class ReadStatus { ok, end, bad };

// The tag of each Kind, in declaration order (a raw run has none).
constexpr char kTags[] = {Codec::kTagShort, Codec::kTagInt, Codec::kTagLong, Codec::kTagBool, Codec::kTagString, 0};
char tagOf(Kind kind) { return kTags[static_cast<int>(kind)]; }

bool sendAll(int fd, std::string_view s) {
    while (!s.empty()) {
        ssize_t n = ::send(fd, s.data(), s.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        s.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

}  // namespace

FakeDaemon::FakeDaemon() : m_sName(uniqueName("kstest")) {}

FakeDaemon::~FakeDaemon() { stop(); }

bool FakeDaemon::start() {
    if (m_listenFd >= 0) return true;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path + 1, m_sName.data(), m_sName.size());
    auto nLen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + m_sName.size());
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), nLen) != 0 || listen(fd, 64) != 0) {
        ::close(fd);
        return false;
    }
    m_wakeFd = eventfd(0, EFD_CLOEXEC);
    if (m_wakeFd < 0) {
        ::close(fd);
        return false;
    }
    m_listenFd = fd;
    m_acceptor = std::thread([this] { acceptLoop(); });
    return true;
}

void FakeDaemon::stop() {
    if (m_listenFd < 0) return;
    m_bStopping = true;
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(m_wakeFd, &one, sizeof one);
    m_acceptor.join();
    ::close(m_listenFd);
    ::close(m_wakeFd);
    m_listenFd = m_wakeFd = -1;
    std::list<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& conn : m_conns)
            if (conn->fd >= 0) shutdown(conn->fd, SHUT_RDWR);
        threads.swap(m_threads);
    }
    for (auto& t : threads) t.join();
    m_bStopping = false;
}

bool FakeDaemon::isRunning() const { return m_listenFd >= 0; }

void FakeDaemon::acceptLoop() {
    for (;;) {
        pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
        int r = ::poll(fds, 2, -1);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0 || fds[1].revents) return;
        int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        auto conn = std::make_shared<Conn>();
        conn->fd = fd;
        std::lock_guard<std::mutex> lock(m_mutex);
        conn->serial = static_cast<int>(m_conns.size()) + 1;
        m_conns.push_back(conn);
        m_threads.emplace_back([this, conn] { serve(conn); });
        m_changed.notify_all();
    }
}

void FakeDaemon::serve(std::shared_ptr<Conn> conn) {
    while (serveOne(*conn)) {
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (conn->fd >= 0) ::close(conn->fd);
    conn->fd = -1;
    m_changed.notify_all();
}

// Reads and answers one request; false when the connection is to end.
bool FakeDaemon::serveOne(Conn& conn) {
    const int fd = conn.fd;  // stable: only this thread closes it
    bool bClientClosed = false;

    // Appends whatever arrives to the input; false at end of stream or failure.
    auto fill = [&]() -> bool {
        char buf[65536];
        for (;;) {
            ssize_t n = ::recv(fd, buf, sizeof buf, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                bClientClosed = (n == 0) && !m_bStopping.load();
                return false;
            }
            conn.in.append(buf, static_cast<std::size_t>(n));
            std::lock_guard<std::mutex> lock(m_mutex);
            conn.bytes.append(buf, static_cast<std::size_t>(n));
            return true;
        }
    };
    auto readValue = [&](Codec::Value& v, int& nError) -> ReadStatus {
        for (;;) {
            std::size_t nUsed = 0;
            switch (Codec::decode(conn.in.data(), conn.in.size(), v, nUsed, nError)) {
            case Codec::Result::good:
                conn.in.erase(0, nUsed);
                return ReadStatus::ok;
            case Codec::Result::bad:
                return ReadStatus::bad;
            case Codec::Result::indeterminate:
                if (!fill()) return ReadStatus::end;
            }
        }
    };
    // Ends the connection after a refusal or a scripted close: stop writing,
    // let the client read what was sent, and wait (bounded) for it to close.
    auto finish = [&](std::string_view sLast) {
        if (!sLast.empty()) sendAll(fd, sLast);
        shutdown(fd, SHUT_WR);
        char buf[4096];
        for (;;) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 2000) <= 0) break;
            ssize_t n = ::recv(fd, buf, sizeof buf, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            std::lock_guard<std::mutex> lock(m_mutex);
            conn.bytes.append(buf, static_cast<std::size_t>(n));
        }
        return false;
    };

    // Counts a close by the client; the connection ends.
    auto clientGone = [&] {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_nClientClosed += bClientClosed ? 1 : 0;
        m_changed.notify_all();
        return false;
    };

    Request r;
    r.connection = conn.serial;

    // End of stream before the first byte of a request is the client's normal close.
    if (conn.in.empty() && !fill()) return clientGone();

    auto refuse = [&](int nCode, std::string sProblem) {
        r.problem = std::move(sProblem);
        record(r);
        return finish(Wire().addError(nCode, r.problem).bytes());
    };
    auto ended = [&](std::string sProblem) {
        r.problem = std::move(sProblem);
        record(r);
        return clientGone();
    };

    // Header.
    Codec::Value v;
    int nError = 0;
    const char header[4] = {Codec::kTagShort, Codec::kTagShort, Codec::kTagString, Codec::kTagString};
    for (int i = 0; i < 4; ++i) {
        ReadStatus s = readValue(v, nError);
        if (s == ReadStatus::end) return ended("connection ended in the header");
        if (s == ReadStatus::bad) return refuse(nError, "malformed header field " + std::to_string(i));
        if (v.tag != header[i])
            return refuse(EPROTO, "header field " + std::to_string(i) + ": wrong tag '" + std::string(1, v.tag) + "'");
        switch (i) {
        case 0: r.version = static_cast<std::int16_t>(v.integer); break;
        case 1: r.magic = static_cast<std::int16_t>(v.integer); break;
        case 2: r.service = v.text; break;
        case 3: r.request = v.text; break;
        }
    }
    if (r.version != OrvoNet::Protocol::kProtocolVersion || r.magic != OrvoNet::Protocol::kMagic)
        return refuse(EPROTO, "bad version or magic");

    std::optional<Script> script = takeScript(r.service, r.request);
    if (!script) return refuse(ENOSYS, "no script for " + r.service + "/" + r.request);

    // Fields.
    for (std::size_t i = 0; i < script->fields.size(); ++i) {
        if (script->closeAfterFields >= 0 && static_cast<int>(i) == script->closeAfterFields) {
            record(r);
            return finish({});
        }
        const Field& f = script->fields[i];
        Value got;
        got.kind = f.kind;
        if (f.kind == Kind::Raw) {
            long nLen = f.nRawLength;
            if (f.nLengthFrom >= 0) {
                if (static_cast<std::size_t>(f.nLengthFrom) >= r.values.size())
                    return refuse(EPROTO, "script: raw length taken from a later field");
                nLen = static_cast<long>(r.values[static_cast<std::size_t>(f.nLengthFrom)].integer);
            }
            if (nLen < 0 || nLen > kMaxRawRun) return refuse(EMSGSIZE, "raw run of " + std::to_string(nLen) + " bytes");
            while (conn.in.size() < static_cast<std::size_t>(nLen))
                if (!fill()) return ended("connection ended in field " + std::to_string(i));
            got.text = conn.in.substr(0, static_cast<std::size_t>(nLen));
            conn.in.erase(0, static_cast<std::size_t>(nLen));
        } else {
            ReadStatus s = readValue(v, nError);
            if (s == ReadStatus::end) return ended("connection ended in field " + std::to_string(i));
            if (s == ReadStatus::bad) return refuse(nError, "malformed field " + std::to_string(i));
            if (v.tag != tagOf(f.kind))
                return refuse(EPROTO, "field " + std::to_string(i) + ": expected tag '" + std::string(1, tagOf(f.kind)) +
                                          "', got '" + std::string(1, v.tag) + "'");
            got.integer = v.integer;
            got.text = std::move(v.text);
        }
        r.values.push_back(std::move(got));
    }
    r.complete = true;
    record(r);
    if (script->closeAfterFields >= 0 && static_cast<std::size_t>(script->closeAfterFields) >= script->fields.size())
        return finish({});

    // Reply.
    std::string sOut = script->replyFn ? script->replyFn(r) : script->reply;
    if (script->errorCode != 0) return finish(sOut + Wire().addError(script->errorCode, script->errorMessage).bytes());
    if (script->trailer) sOut += Wire().addShort(0).addShort(OrvoNet::Protocol::kMagic).bytes();
    if (script->closeAfterReplyBytes >= 0) {
        sOut.resize(std::min(sOut.size(), static_cast<std::size_t>(script->closeAfterReplyBytes)));
        return finish(sOut);
    }
    if (!sendAll(fd, sOut)) return false;
    if (script->closeAfterReply) return finish({});
    return true;
}

std::optional<Script> FakeDaemon::takeScript(const std::string& sService, const std::string& sRequest) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_scripts.begin(); it != m_scripts.end(); ++it) {
        if ((!it->service.empty() && it->service != sService) || (!it->request.empty() && it->request != sRequest))
            continue;
        Script s = *it;
        if (!s.persistent) m_scripts.erase(it);
        return s;
    }
    return std::nullopt;
}

std::size_t FakeDaemon::record(Request r) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.push_back(std::move(r));
    m_changed.notify_all();
    return m_requests.size() - 1;
}

void FakeDaemon::expect(Script script) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_scripts.push_back(std::move(script));
}

std::vector<Request> FakeDaemon::requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

Request FakeDaemon::request(std::size_t i) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.at(i);
}

std::size_t FakeDaemon::requestCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.size();
}

bool FakeDaemon::waitForRequests(std::size_t n, int nTimeoutMs) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(nTimeoutMs), [&] { return m_requests.size() >= n; });
}

int FakeDaemon::connectionCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_conns.size());
}

std::string FakeDaemon::connectionBytes(int nConnection) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (nConnection < 1 || static_cast<std::size_t>(nConnection) > m_conns.size()) return {};
    return m_conns[static_cast<std::size_t>(nConnection) - 1]->bytes;
}

bool FakeDaemon::waitForClientClosed(int n, int nTimeoutMs) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(nTimeoutMs), [&] { return m_nClientClosed >= n; });
}

}  // namespace kstest
