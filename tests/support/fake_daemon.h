// Helpers of wire-level tests (environment, temporary directories, encoded
// bytes, a hand-driven client) and a daemon that misbehaves on purpose: it
// answers each request with the next reply of a queue, which may be cut
// short, an error value or held back, and records what it read.
#ifndef KSTEST_FAKE_DAEMON_H
#define KSTEST_FAKE_DAEMON_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "OrvoCodec.h"

namespace kstest {

// "<prefix>-<pid>-<n>", unique within the process and across parallel test processes.
std::string uniqueName(const std::string& sPrefix = "kstest");

// Sets an environment variable (a null value unsets it) for the lifetime of the object, then restores it.
class ScopedEnv {
public:
    ScopedEnv(std::string sName, const char* pszValue);
    ScopedEnv(std::string sName, const std::string& sValue) : ScopedEnv(std::move(sName), sValue.c_str()) {}
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_sName;
    std::optional<std::string> m_old;
};

// The code of the OrvoException that f throws (its message into *pMessage), or 0 when it throws none.
int exceptionCode(const std::function<void()>& f, std::string* pMessage = nullptr);

// A fresh empty directory under $TMPDIR (or /tmp), removed with its contents at destruction.
class ScopedTempDir {
public:
    explicit ScopedTempDir(const std::string& sPrefix = "kstest");
    ~ScopedTempDir();
    ScopedTempDir(const ScopedTempDir&) = delete;
    ScopedTempDir& operator=(const ScopedTempDir&) = delete;
    const std::string& path() const { return m_sPath; }

private:
    std::string m_sPath;
};

// Builds encoded wire bytes: Wire().addInt(0).addString("x").bytes().
class Wire {
public:
    Wire& addShort(std::int16_t n) { return add(OrvoNet::Codec::putShort, n); }
    Wire& addInt(std::int32_t n) { return add(OrvoNet::Codec::putInt, n); }
    Wire& addLong(std::int64_t n) { return add(OrvoNet::Codec::putLong, n); }
    Wire& addBool(bool b) { return add(OrvoNet::Codec::putBool, b); }
    Wire& addString(std::string_view s) { return add(OrvoNet::Codec::putString, s); }
    Wire& addError(std::int32_t nCode, std::string_view sMessage) {
        OrvoNet::Codec::putError(m_sBytes, nCode, sMessage);
        return *this;
    }
    Wire& addRaw(std::string_view s) {
        m_sBytes += s;
        return *this;
    }
    const std::string& bytes() const { return m_sBytes; }
    operator const std::string&() const { return m_sBytes; }

private:
    template <typename Put, typename T>
    Wire& add(Put put, T value) {
        put(m_sBytes, value);
        return *this;
    }
    std::string m_sBytes;
};

// A request's head as the client library writes it; its fields are added after it.
Wire requestWire(std::string_view sService, std::string_view sRequest);

// The bytes of one push frame: tagged int id, tagged int length, payload.
std::string encodeFrame(std::int32_t nId, std::string_view sPayload);

// A connection to a pipe or TCP address, for pushing frames or talking to a daemon by hand.
class WireClient {
public:
    WireClient() = default;
    ~WireClient();
    WireClient(const WireClient&) = delete;
    WireClient& operator=(const WireClient&) = delete;

    // "pipe:<name>" (a path when it has a '/') or "socket:<host>:<port>".
    bool connect(const std::string& sAddress);
    bool isOpen() const { return m_fd >= 0; }
    int fd() const { return m_fd; }
    // Takes over a connected descriptor, e.g. one a test's own listener accepted.
    void adopt(int fd) {
        close();
        m_fd = fd;
    }
    bool send(std::string_view sBytes);
    bool push(std::int32_t nId, std::string_view sPayload) { return send(encodeFrame(nId, sPayload)); }
    // Reads one typed value; false on timeout, end or a bad value.
    bool readValue(OrvoNet::Codec::Value& value, int nTimeoutMs = 5000);
    // Reads a whole reply: its value (an integer, into nValue) and the trailer.
    bool readReply(std::int64_t& nValue, int nTimeoutMs = 5000);
    bool readRaw(std::string& sOut, std::size_t n, int nTimeoutMs = 5000);
    // True once the peer closed (what it sent before is discarded).
    bool waitPeerClosed(int nTimeoutMs = 5000);
    void close();

private:
    // Reads what comes within nTimeoutMs; false on time-out, or at the end (then sets *pbEnded).
    bool fill(int nTimeoutMs, bool* pbEnded = nullptr);
    int m_fd = -1;
    std::string m_sIn;
};

// Asks a running ksd at `sAddress` an operator query ("status", "locks", ...)
// on a connection of its own: the JSON answer, or empty when none came.
std::string operatorQuery(const std::string& sAddress, std::string_view sWhat);

// One request as the fake daemon read it: the bytes of one write of the
// client, which sends each request whole, on its `connection`th connection.
struct Request {
    int connection = 0;
    std::string bytes;
    // The value at index i after the header (raw runs do not decode).
    OrvoNet::Codec::Value value(std::size_t i) const;
    std::string text(std::size_t i) const { return value(i).text; }
    std::int64_t integer(std::size_t i) const { return value(i).integer; }
};

// The fake daemon's answer to one request.
struct Reply {
    std::string values{};                             // the reply's encoded values
    bool trailer = true;                              // follows the values
    bool close = false;                               // then stop writing, and read on until the client closes
    std::function<std::string(const Request&)> fn{};  // when set, computes `values`; may block
    bool persistent = false;                          // answers every request from then on
};

// Listens on a unique abstract name; a request with no reply queued gets an error value and a close.
class FakeDaemon {
public:
    FakeDaemon() = default;
    ~FakeDaemon() { stop(); }
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    // Listens (again, on the same name after a stop). False when it cannot.
    bool start();
    // Closes the listener and every connection and joins all threads.
    void stop();
    void expect(Reply reply);
    // "pipe:<name>": the KSINTF_CONN_TYPE value that points here.
    std::string connType() const { return "pipe:" + m_sName; }

    std::vector<Request> requests() const;
    int connectionCount() const;
    // Bounded waits: true once n requests are recorded, or the client has closed n connections.
    bool waitForRequests(std::size_t n) const {
        return waitFor([&] { return m_requests.size() >= n; });
    }
    bool waitForClientClosed(int n) const {
        return waitFor([&] { return m_nClientClosed >= n; });
    }

private:
    bool waitFor(const std::function<bool()>& done) const;
    void serve(int fd, int nConnection);
    Reply next(Request r);

    const std::string m_sName = uniqueName("kstest");
    int m_listenFd = -1;
    std::thread m_acceptor;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::deque<Reply> m_replies;
    std::vector<Request> m_requests;
    std::set<int> m_fds;  // connections still open
    std::list<std::thread> m_threads;
    int m_nConnections = 0, m_nClientClosed = 0;
    bool m_bStopping = false;
};

}  // namespace kstest

#endif
