// ksd under load, through libksintf's C API against an in-process daemon:
// connect-per-call request rate beside the raw Unix-socket connect-per-request
// limit of this machine, publication rate on the shared connection, and
// publish-to-callback latency at a paced 10k notifications per second.

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "OrvoCodec.h"
#include "OrvoJobStatus.h"
#include "OrvoNotificationNetwork.h"
#include "fake_daemon.h"
#include "daemon_thread.h"

namespace {

namespace Codec = OrvoNet::Codec;
using Clock = std::chrono::steady_clock;

// One daemon for the whole run, on its own pipe and state directory.
struct Fixture {
    kstest::ScopedTempDir stateDir{"ksbench"};
    std::string pipe = kstest::uniqueName("ksbench");
    std::unique_ptr<ksd::DaemonThread> daemon;
    std::unique_ptr<kstest::ScopedEnv> env;
    int jobId = -1;

    Fixture() {
        ksd::DaemonOptions options;
        options.pipe = pipe;
        options.stateDir = stateDir.path();
        daemon = std::make_unique<ksd::DaemonThread>(options);
        env = std::make_unique<kstest::ScopedEnv>("KSINTF_CONN_TYPE", "pipe:" + pipe);
        jobId = OrvoJSECreateJob("benchmark job", kstest::uniqueName("job").c_str());
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

void BM_SetJobProgressConnectPerCall(benchmark::State& state) {
    const int jobId = fixture().jobId;
    if (jobId <= 0) {
        state.SkipWithError("could not create the job");
        return;
    }
    int n = 0;
    for (auto _ : state) {
        if (OrvoJSESetJobProgress(jobId, n++ % 100) != 0) {
            state.SkipWithError("request failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SetJobProgressConnectPerCall)->Threads(1)->Threads(2)->UseRealTime();

// The same exchange size with plain sockets against a responder that does
// nothing but answer: the ceiling for connect-per-request on this machine.
struct RawResponder {
    std::string name = kstest::uniqueName("ksbench-raw");
    int listenFd = -1;
    std::thread thread;
    std::string request;
    std::string reply;

    RawResponder() {
        Codec::putShort(request, 1);
        Codec::putShort(request, 7777);
        Codec::putString(request, "JobStatus");
        Codec::putString(request, "TRVX_JS_SET_PROGRESS");
        Codec::putLong(request, 1);
        Codec::putLong(request, 40);
        Codec::putLong(reply, 0);
        Codec::putShort(reply, 0);
        Codec::putShort(reply, 7777);
        listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        const socklen_t len = address(addr);
        if (::bind(listenFd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(listenFd, 256) != 0) return;
        thread = std::thread([this] { serve(); });
    }
    ~RawResponder() {
        // Wakes the blocked accept so the thread can be joined.
        ::shutdown(listenFd, SHUT_RDWR);
        if (thread.joinable()) thread.join();
        ::close(listenFd);
    }
    socklen_t address(sockaddr_un& addr) const {
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path + 1, name.data(), name.size());
        return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    }
    void serve() {
        std::vector<char> buf(4096);
        for (;;) {
            const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            std::size_t got = 0;
            while (got < request.size()) {
                const ssize_t n = ::read(fd, buf.data(), buf.size());
                if (n <= 0) break;
                got += static_cast<std::size_t>(n);
            }
            if (got == request.size()) (void)!::write(fd, reply.data(), reply.size());
            ::close(fd);
        }
    }
};

RawResponder& rawResponder() {
    static RawResponder r;
    return r;
}

void BM_RawUnixConnectPerRequest(benchmark::State& state) {
    RawResponder& r = rawResponder();
    sockaddr_un addr{};
    const socklen_t len = r.address(addr);
    std::vector<char> buf(r.reply.size());
    for (auto _ : state) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
            ::send(fd, r.request.data(), r.request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(r.request.size())) {
            ::close(fd);
            state.SkipWithError("raw exchange failed");
            break;
        }
        std::size_t got = 0;
        while (got < buf.size()) {
            const ssize_t n = ::read(fd, buf.data() + got, buf.size() - got);
            if (n <= 0) break;
            got += static_cast<std::size_t>(n);
        }
        ::close(fd);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawUnixConnectPerRequest)->Threads(1)->Threads(2)->UseRealTime();

void BM_NotifySharedConnection(benchmark::State& state) {
    fixture();
    static const std::string event = kstest::uniqueName("bench-event");
    char payload[64] = {};
    OrvoNNNotification n{"<tick/>", payload, sizeof(payload), nullptr};
    for (auto _ : state) {
        if (OrvoNNNotify(event.c_str(), &n) < 0) {
            state.SkipWithError("notify failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NotifySharedConnection)->UseRealTime();

// Latency: each payload carries its publication time; every subscriber
// callback records now minus that.
std::mutex g_latencyMutex;
std::vector<std::int64_t> g_latenciesNs;

void onLatencyNotification(const char*, OrvoNNNotification* pNotification) {
    std::int64_t sentNs;
    std::memcpy(&sentNs, pNotification->m_pData, sizeof(sentNs));
    const std::int64_t nowNs = Clock::now().time_since_epoch().count();
    std::lock_guard<std::mutex> lock(g_latencyMutex);
    g_latenciesNs.push_back(nowNs - sentNs);
}

void BM_PublishToCallbackLatency(benchmark::State& state) {
    fixture();
    const int subscribers = static_cast<int>(state.range(0));
    const std::string event = kstest::uniqueName("bench-latency");
    std::vector<int> handles;
    for (int i = 0; i < subscribers; ++i) handles.push_back(OrvoNNRegisterForNotification(event.c_str(), onLatencyNotification, nullptr));
    {
        std::lock_guard<std::mutex> lock(g_latencyMutex);
        g_latenciesNs.clear();
    }
    // Paced at 10k per second: one publication every 100 microseconds.
    const auto period = std::chrono::microseconds(100);
    std::int64_t published = 0;
    auto next = Clock::now();
    for (auto _ : state) {
        std::this_thread::sleep_until(next);
        next += period;
        std::int64_t nowNs = Clock::now().time_since_epoch().count();
        OrvoNNNotification n{"", &nowNs, sizeof(nowNs), nullptr};
        OrvoNNNotify(event.c_str(), &n);
        ++published;
    }
    // Let the deliveries in flight arrive before reading the figures.
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (Clock::now() < deadline) {
        {
            std::lock_guard<std::mutex> lock(g_latencyMutex);
            if (static_cast<std::int64_t>(g_latenciesNs.size()) >= published * subscribers) break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (int h : handles) OrvoNNUnregisterForNotification(h);
    std::vector<std::int64_t> latencies;
    {
        std::lock_guard<std::mutex> lock(g_latencyMutex);
        latencies.swap(g_latenciesNs);
    }
    if (latencies.empty()) {
        state.SkipWithError("no deliveries");
        return;
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["p50_us"] = static_cast<double>(latencies[latencies.size() / 2]) / 1000.0;
    state.counters["p99_us"] = static_cast<double>(latencies[latencies.size() * 99 / 100]) / 1000.0;
    state.counters["delivered"] = static_cast<double>(latencies.size());
    state.counters["expected"] = static_cast<double>(published * subscribers);
}
BENCHMARK(BM_PublishToCallbackLatency)->Arg(1)->Arg(10)->Iterations(20000)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
