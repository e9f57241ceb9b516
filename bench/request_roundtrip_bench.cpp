// One whole request round trip (connect, header, fields, reply, trailer,
// close) through OrvoLibraryConnection, beside the same exchange written
// with plain sockets, against one in-process responder on an abstract socket.
// The ratio of the two is the cost of the library's framing and buffering.

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "OrvoCodec.h"
#include "OrvoLibraryConnection.h"

namespace {

namespace Codec = OrvoNet::Codec;

const char* const kService = "JobStatus";
const char* const kRequest = "TRVX_JS_SET_PROGRESS";
const long kJobId = 4711;
const long kProgress = 40;

std::string encodedRequest() {
    std::string s;
    Codec::putShort(s, 1);
    Codec::putShort(s, 7777);
    Codec::putString(s, kService);
    Codec::putString(s, kRequest);
    Codec::putLong(s, kJobId);
    Codec::putLong(s, kProgress);
    return s;
}

std::string encodedReply() {
    std::string s;
    Codec::putLong(s, 0);
    Codec::putShort(s, 0);
    Codec::putShort(s, 7777);
    return s;
}

socklen_t abstractAddress(const std::string& sName, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path + 1, sName.data(), sName.size());
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + sName.size());
}

bool readFully(int fd, char* p, std::size_t n) {
    while (n > 0) {
        const ssize_t got = read(fd, p, n);
        if (got <= 0) return false;
        p += got;
        n -= static_cast<std::size_t>(got);
    }
    return true;
}

// Serves one request per connection: reads the known request, answers with
// the reply and the trailer, waits for the client to close.
class Responder {
public:
    Responder() : m_sName("ksbench-" + std::to_string(getpid())) {
        m_listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr;
        const socklen_t len = abstractAddress(m_sName, addr);
        if (m_listenFd < 0 || bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
            listen(m_listenFd, 64) != 0) {
            std::abort();
        }
        m_thread = std::thread([this] { serve(); });
    }
    ~Responder() {
        m_bStop = true;
        shutdown(m_listenFd, SHUT_RDWR);
        m_thread.join();
        close(m_listenFd);
    }
    const std::string& name() const { return m_sName; }

private:
    void serve() {
        const std::string sRequest = encodedRequest();
        const std::string sReply = encodedReply();
        std::string sBuffer(sRequest.size(), '\0');
        while (!m_bStop) {
            const int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            if (readFully(fd, sBuffer.data(), sBuffer.size())) {
                send(fd, sReply.data(), sReply.size(), MSG_NOSIGNAL);
                char c;
                while (read(fd, &c, 1) > 0) {
                }
            }
            close(fd);
        }
    }

    std::string m_sName;
    int m_listenFd = -1;
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
};

Responder& responder() {
    static Responder r;
    return r;
}

void BM_LibraryConnectionRoundTrip(benchmark::State& state) {
    const std::string sConn = "pipe:" + responder().name();
    setenv("KSINTF_CONN_TYPE", sConn.c_str(), 1);
    const OrvoSupport::OrvoString sService(kService), sRequest(kRequest);
    for (auto _ : state) {
        KSInterface::OrvoLibraryConnection connection(sService, sRequest);
        connection.transfer(kJobId);
        connection.transfer(kProgress);
        benchmark::DoNotOptimize(connection.receiveLong());
    }
}
BENCHMARK(BM_LibraryConnectionRoundTrip);

void BM_RawSocketRoundTrip(benchmark::State& state) {
    sockaddr_un addr;
    const socklen_t len = abstractAddress(responder().name(), addr);
    std::string sOut;
    sOut.reserve(128);
    char reply[64];
    const std::size_t nReply = encodedReply().size();
    for (auto _ : state) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
            state.SkipWithError("connect failed");
            close(fd);
            break;
        }
        sOut.clear();
        Codec::putShort(sOut, 1);
        Codec::putShort(sOut, 7777);
        Codec::putString(sOut, kService);
        Codec::putString(sOut, kRequest);
        Codec::putLong(sOut, kJobId);
        Codec::putLong(sOut, kProgress);
        send(fd, sOut.data(), sOut.size(), MSG_NOSIGNAL);
        if (!readFully(fd, reply, nReply)) state.SkipWithError("short reply");
        benchmark::DoNotOptimize(Codec::loadBE64(reply + 1));
        close(fd);
    }
}
BENCHMARK(BM_RawSocketRoundTrip);

}  // namespace

BENCHMARK_MAIN();
