// A daemon that misbehaves on purpose, for wire-level tests of the client
// side: it listens on a unique abstract name, records
// every request and byte, and answers each request from the first queued
// Script whose service/request match (empty matches any; used once unless
// `persistent`). A script names the fields after the header (RawFrom(i): a
// raw run as long as field i says) and the reply bytes (built with Wire), or
// cuts the exchange: `errorCode` sends an error value and closes,
// `closeAfterFields` / `closeAfterReplyBytes` close part way, `trailer` false
// leaves the trailer out. A request no script matches gets an error value and
// its connection closed, as the daemon does. WireClient talks to a daemon or
// pushes to a sink by hand.
#ifndef KSTEST_FAKE_DAEMON_H
#define KSTEST_FAKE_DAEMON_H

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "OrvoCodec.h"

namespace kstest {

// "<prefix>-<pid>-<n>", unique within the process and across parallel test processes.
std::string uniqueName(const std::string& sPrefix = "kstest");

// Sets an environment variable for the lifetime of the object, then restores it.
class ScopedEnv {
public:
    ScopedEnv(std::string sName, const std::string& sValue);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_sName;
    std::optional<std::string> m_old;
};

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
    Wire& addShort(std::int16_t n);
    Wire& addInt(std::int32_t n);
    Wire& addLong(std::int64_t n);
    Wire& addBool(bool b);
    Wire& addString(std::string_view s);
    Wire& addError(std::int32_t nCode, std::string_view sMessage);
    Wire& addRaw(std::string_view s);
    const std::string& bytes() const { return m_sBytes; }
    operator const std::string&() const { return m_sBytes; }

private:
    std::string m_sBytes;
};

// The head of a request as the client library writes it (protocol version,
// magic, service, request name); the request's fields are added after it.
Wire requestWire(std::string_view sService, std::string_view sRequest);

// The bytes of one push frame: tagged int id, tagged int length, payload.
std::string encodeFrame(std::int32_t nId, std::string_view sPayload);

enum class Kind { Short, Int, Long, Bool, String, Raw };

// The kind of one request field the daemon expects after the header.
struct Field {
    Kind kind = Kind::Int;
    long nRawLength = 0;      // Raw: fixed byte count (when nLengthFrom < 0)
    int nLengthFrom = -1;     // Raw: index of an earlier field whose integer value is the count

    static Field Short() { return {Kind::Short}; }
    static Field Int() { return {Kind::Int}; }
    static Field Long() { return {Kind::Long}; }
    static Field Bool() { return {Kind::Bool}; }
    static Field String() { return {Kind::String}; }
    static Field Raw(long n) { return {Kind::Raw, n, -1}; }
    static Field RawFrom(int nFieldIndex) { return {Kind::Raw, 0, nFieldIndex}; }
};

// One received field. `integer` holds short/int/long/bool values; `text`
// holds a string's bytes or a raw run's bytes.
struct Value {
    Kind kind = Kind::Int;
    std::int64_t integer = 0;
    std::string text;
};

// One request as the daemon received it.
struct Request {
    int connection = 0;          // serial of the connection it came on, from 1
    std::int16_t version = 0;
    std::int16_t magic = 0;
    std::string service;
    std::string request;
    std::vector<Value> values;   // the fields after the header, in order (raw runs included)
    bool complete = false;       // every scripted field arrived
    std::string problem;         // empty, or why the daemon refused it

    std::int64_t integer(std::size_t i) const { return values.at(i).integer; }
    const std::string& text(std::size_t i) const { return values.at(i).text; }
};

struct Script {
    std::string service{};       // empty: any
    std::string request{};       // empty: any
    std::vector<Field> fields{};
    std::string reply{};         // encoded reply values
    // When set, computes the reply (after the fields are read) instead of `reply`.
    // It runs on the connection's thread and may block (to hold a reply back).
    std::function<std::string(const Request&)> replyFn{};
    bool trailer = true;
    std::int32_t errorCode = 0;  // != 0: error value instead of the reply, then close
    std::string errorMessage = "scripted error";
    int closeAfterFields = -1;
    long closeAfterReplyBytes = -1;
    bool closeAfterReply = false;
    bool persistent = false;     // stays queued for every matching request
};

// A connection to a pipe or TCP address, for pushing frames or talking to a daemon by hand.
class WireClient {
public:
    WireClient() = default;
    ~WireClient();
    WireClient(const WireClient&) = delete;
    WireClient& operator=(const WireClient&) = delete;

    // "pipe:<name>" (abstract, or a path when it has a '/'), "socket:<host>:<port>" or
    // "socket:<port>" (loopback). False when it cannot connect.
    bool connect(const std::string& sAddress);
    bool isOpen() const { return m_fd >= 0; }
    int fd() const { return m_fd; }
    // Takes over a connected descriptor, e.g. one a test's own listener accepted.
    void adopt(int fd) { close(); m_fd = fd; }
    bool send(std::string_view sBytes);
    bool push(std::int32_t nId, std::string_view sPayload) { return send(encodeFrame(nId, sPayload)); }
    // Reads one typed value (waits up to nTimeoutMs); false on timeout, end or a bad value.
    bool readValue(OrvoNet::Codec::Value& value, int nTimeoutMs = 5000);
    // Reads a whole reply: its value (an integer, into nValue) and the trailer.
    bool readReply(std::int64_t& nValue, int nTimeoutMs = 5000);
    // Reads exactly n raw bytes; false on timeout or end.
    bool readRaw(std::string& sOut, std::size_t n, int nTimeoutMs = 5000);
    // Waits up to nTimeoutMs for the peer to close; true when it did (input before the end is discarded).
    bool waitPeerClosed(int nTimeoutMs = 5000);
    void close();

private:
    bool fill(int nTimeoutMs);
    int m_fd = -1;
    std::string m_sIn;
};

// Asks a running ksd at `sAddress` an operator query ("status", "locks", ...)
// on a connection of its own: the JSON answer, or empty when none came.
std::string operatorQuery(const std::string& sAddress, std::string_view sWhat);

class FakeDaemon {
public:
    FakeDaemon();
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    // Listens (again, on the same name after a stop). False when it cannot.
    bool start();
    // Closes the listener and every connection and joins all threads.
    void stop();
    bool isRunning() const;

    // Queues a script (may be called while running).
    void expect(Script script);

    // "pipe:<name>": the KSINTF_CONN_TYPE value that points here.
    std::string connType() const { return "pipe:" + m_sName; }
    const std::string& pipeName() const { return m_sName; }

    // Requests received so far (including refused ones), in arrival order.
    std::vector<Request> requests() const;
    Request request(std::size_t i) const;
    std::size_t requestCount() const;
    // Waits (bounded) until at least n requests are recorded; true if they are.
    bool waitForRequests(std::size_t n, int nTimeoutMs = 5000) const;

    // Connections accepted so far, and the bytes received on connection c (from 1).
    int connectionCount() const;
    std::string connectionBytes(int nConnection) const;
    // Waits (bounded) until the client has closed n connections.
    bool waitForClientClosed(int n, int nTimeoutMs = 5000) const;

private:
    struct Conn;
    void acceptLoop();
    void serve(std::shared_ptr<Conn> conn);
    bool serveOne(Conn& conn);
    std::optional<Script> takeScript(const std::string& sService, const std::string& sRequest);
    std::size_t record(Request r);

    std::string m_sName;
    int m_listenFd = -1;
    int m_wakeFd = -1;
    std::thread m_acceptor;
    std::atomic<bool> m_bStopping{false};

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::list<Script> m_scripts;
    std::vector<Request> m_requests;
    std::vector<std::shared_ptr<Conn>> m_conns;
    std::list<std::thread> m_threads;
    int m_nClientClosed = 0;
};

}  // namespace kstest

#endif
