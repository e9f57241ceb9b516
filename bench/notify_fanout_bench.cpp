// Notification delivery against a ksd process of its own, printed as a table:
//  - publish -> callback latency at a paced rate, 10 subscribers in this
//    process, beside the same rate over one raw Unix socket hop;
//  - sustained callbacks/s with 100 subscribers in 10 processes, the
//    publisher sending as fast as it can;
//  - publications/s with many subscriptions on other events beside none.
// Usage: notify_fanout_bench [--quick]

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "OrvoNotificationNetwork.h"
#include "fake_daemon.h"
#include "ksd_process.h"
#include "process_usage.h"

namespace {

using Clock = std::chrono::steady_clock;

std::int64_t nowNs() { return Clock::now().time_since_epoch().count(); }

std::int64_t cpuNs(int who) {
    rusage u{};
    ::getrusage(who, &u);
    auto ns = [](const timeval& t) { return std::int64_t{t.tv_sec} * 1'000'000'000 + std::int64_t{t.tv_usec} * 1000; };
    return ns(u.ru_utime) + ns(u.ru_stime);
}

double percentileUs(std::vector<std::int64_t>& v, double p) {
    if (v.empty()) return 0;
    const auto k = static_cast<std::size_t>(p * static_cast<double>(v.size() - 1));
    std::nth_element(v.begin(), v.begin() + static_cast<long>(k), v.end());
    return static_cast<double>(v[k]) / 1000.0;
}

void row(const char* what, const std::string& value, const std::string& baseline) {
    std::printf("| %-58s | %16s | %16s |\n", what, value.c_str(), baseline.c_str());
}

std::string fmt(const char* format, double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

// ---- latency at a paced rate -------------------------------------------

std::mutex g_mutex;
std::vector<std::int64_t> g_latencyNs;

void onTimed(const char*, OrvoNNNotification* pNotification) {
    std::int64_t sent;
    std::memcpy(&sent, pNotification->m_pData, sizeof sent);
    const std::int64_t lat = nowNs() - sent;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_latencyNs.push_back(lat);
}

struct LatencyResult {
    double achievedRate = 0;
    long expected = 0;
    long delivered = 0;
    double p50 = 0, p99 = 0;
};

LatencyResult pacedLatency(int subscribers, int rate, double seconds) {
    const std::string event = "bench.lat." + std::to_string(::getpid());
    std::vector<int> handles;
    for (int i = 0; i < subscribers; ++i)
        handles.push_back(OrvoNNRegisterForNotification(event.c_str(), onTimed, nullptr));
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_latencyNs.clear();
        g_latencyNs.reserve(static_cast<std::size_t>(rate * seconds * subscribers) + 16);
    }
    const long total = static_cast<long>(rate * seconds);
    const auto period = std::chrono::nanoseconds(1'000'000'000L / rate);
    const auto start = Clock::now();
    for (long i = 0; i < total; ++i) {
        std::this_thread::sleep_until(start + i * period);
        std::int64_t t = nowNs();
        OrvoNNNotification n{"", &t, sizeof t, nullptr};
        OrvoNNNotify(event.c_str(), &n);
    }
    LatencyResult r;
    r.achievedRate = static_cast<double>(total) / std::chrono::duration<double>(Clock::now() - start).count();
    r.expected = total * subscribers;
    for (int i = 0; i < 300; ++i) {
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            if (static_cast<long>(g_latencyNs.size()) >= r.expected) break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (int h : handles) OrvoNNUnregisterForNotification(h);
    std::lock_guard<std::mutex> lock(g_mutex);
    r.delivered = static_cast<long>(g_latencyNs.size());
    r.p50 = percentileUs(g_latencyNs, 0.50);
    r.p99 = percentileUs(g_latencyNs, 0.99);
    return r;
}

// The same pace over one Unix socket hop: a writer and a reader thread, the
// payload the time it was written. The floor of any one-hop delivery here.
LatencyResult rawLatency(int rate, double seconds) {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return {};
    const long total = static_cast<long>(rate * seconds);
    std::vector<std::int64_t> lat;
    lat.reserve(static_cast<std::size_t>(total));
    std::thread reader([&] {
        std::int64_t t;
        std::size_t got = 0;
        char* p = reinterpret_cast<char*>(&t);
        for (long i = 0; i < total;) {
            const ssize_t n = ::read(sv[1], p + got, sizeof t - got);
            if (n <= 0) return;
            got += static_cast<std::size_t>(n);
            if (got < sizeof t) continue;
            lat.push_back(nowNs() - t);
            got = 0;
            ++i;
        }
    });
    const auto period = std::chrono::nanoseconds(1'000'000'000L / rate);
    const auto start = Clock::now();
    for (long i = 0; i < total; ++i) {
        std::this_thread::sleep_until(start + i * period);
        const std::int64_t t = nowNs();
        if (::write(sv[0], &t, sizeof t) != sizeof t) break;
    }
    reader.join();
    ::close(sv[0]);
    ::close(sv[1]);
    LatencyResult r;
    r.achievedRate = rate;
    r.expected = total;
    r.delivered = static_cast<long>(lat.size());
    r.p50 = percentileUs(lat, 0.50);
    r.p99 = percentileUs(lat, 0.99);
    return r;
}

// ---- fan-out to several processes --------------------------------------

std::atomic<long> g_count{0};
std::atomic<std::int64_t> g_lastNs{0};

void onCount(const char*, OrvoNNNotification*) {
    g_count.fetch_add(1, std::memory_order_relaxed);
    g_lastNs.store(nowNs(), std::memory_order_relaxed);
}

// A child: subscribes, says "ready", waits for the parent's word, reports
// its count and the time of its last callback.
[[noreturn]] void subscriberChild(const std::string& event, int subscribers, int toParent, int fromParent) {
    for (int i = 0; i < subscribers; ++i)
        if (OrvoNNRegisterForNotification(event.c_str(), onCount, nullptr) < 0) std::_Exit(3);
    char c = 'r';
    if (::write(toParent, &c, 1) != 1) std::_Exit(4);
    if (::read(fromParent, &c, 1) != 1) std::_Exit(5);
    const std::int64_t out[3] = {g_count.load(), g_lastNs.load(), cpuNs(RUSAGE_SELF)};
    if (::write(toParent, out, sizeof out) != sizeof out) std::_Exit(6);
    std::_Exit(0);
}

struct FanoutResult {
    long published = 0;
    long queued = 0;
    long delivered = 0;
    double publishRate = 0;
    double callbackRate = 0;
    std::int64_t subscriberCpuNs = 0;
    std::int64_t daemonCpuNs = 0;
};

FanoutResult fanout(pid_t daemonPid, int processes, int perProcess, double seconds) {
    const std::string event = "bench.fan." + std::to_string(::getpid());
    struct Child {
        pid_t pid;
        int in, out;
    };
    std::vector<Child> children;
    for (int p = 0; p < processes; ++p) {
        int up[2], down[2];
        if (::pipe(up) != 0 || ::pipe(down) != 0) std::abort();
        const pid_t pid = ::fork();
        if (pid == 0) subscriberChild(event, perProcess, up[1], down[0]);
        ::close(up[1]);
        ::close(down[0]);
        children.push_back({pid, up[0], down[1]});
    }
    char c;
    for (auto& ch : children)
        if (::read(ch.in, &c, 1) != 1) std::fprintf(stderr, "child %d did not subscribe\n", static_cast<int>(ch.pid));
    FanoutResult r;
    const std::int64_t daemonCpu = kstest::processCpuNs(daemonPid);
    const std::int64_t start = nowNs();
    const auto until = Clock::now() + std::chrono::duration<double>(seconds);
    char payload[16] = {};
    OrvoNNNotification n{"<tick/>", payload, sizeof payload, nullptr};
    while (Clock::now() < until) {
        const int q = OrvoNNNotify(event.c_str(), &n);
        if (q > 0) r.queued += q;
        ++r.published;
    }
    r.publishRate = static_cast<double>(r.published) / (static_cast<double>(nowNs() - start) / 1e9);
    // Let the queues drain: nothing is published any more.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    r.daemonCpuNs = kstest::processCpuNs(daemonPid) - daemonCpu;
    std::int64_t last = start;
    for (auto& ch : children) {
        std::int64_t in[3] = {0, 0, 0};
        if (::write(ch.out, "x", 1) != 1 || ::read(ch.in, in, sizeof in) != sizeof in) continue;
        r.delivered += in[0];
        r.subscriberCpuNs += in[2];
        last = std::max(last, in[1]);
        ::close(ch.in);
        ::close(ch.out);
        ::waitpid(ch.pid, nullptr, 0);
    }
    r.callbackRate = static_cast<double>(r.delivered) / (static_cast<double>(last - start) / 1e9);
    return r;
}

// ---- publications with subscriptions on other events -------------------

// An abstract name that accepts nothing: subscriptions to it stay (the
// sweep finds a listener) and nothing is ever pushed to it.
struct QuietListener {
    std::string name = "bench-quiet-" + std::to_string(::getpid());
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    QuietListener() {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path + 1, name.data(), name.size());
        const auto len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(fd, 1) != 0) std::abort();
    }
    ~QuietListener() { ::close(fd); }
};

// Registers `count` subscriptions on events nobody publishes, 100 requests
// in flight at a time; returns how many were taken.
int subscribeOthers(const std::string& daemon, const std::string& address, int count) {
    kstest::WireClient c;
    if (!c.connect(daemon)) return 0;
    constexpr int kBatch = 100;
    int taken = 0;
    for (int i = 0; i < count; i += kBatch) {
        std::string batch;
        const int n = std::min(kBatch, count - i);
        for (int k = 0; k < n; ++k) {
            batch += kstest::requestWire("Notifier", "TRVX_NN_REGISTER")
                         .addString("bench.other." + std::to_string(i + k))
                         .addString(address)
                         .addInt(i + k + 1)
                         .bytes();
        }
        if (!c.send(batch)) return taken;
        for (int k = 0; k < n; ++k) {
            std::int64_t rc = -1;
            if (!c.readReply(rc, 30000)) return taken;
            if (rc == 0) ++taken;
        }
    }
    return taken;
}

// Publications per second of one publisher on one connection, for `seconds`.
double publishRate(kstest::WireClient& c, const std::string& event, double seconds) {
    const std::string notify =
        kstest::requestWire("Notifier", "TRVX_NN_NOTIFY").addString("udp:127.0.0.1:0").addString(event).addString("<x/>").addLong(0);
    long count = 0;
    const auto start = Clock::now();
    const auto until = start + std::chrono::duration<double>(seconds);
    std::int64_t queued = 0;
    while (Clock::now() < until) {
        if (!c.send(notify) || !c.readReply(queued, 30000)) return 0;
        ++count;
    }
    return static_cast<double>(count) / std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const double seconds = quick ? 1.0 : 3.0;
    const int others = quick ? 10000 : 100000;

    kstest::KsdProcess ksd;
    if (!ksd.start({"--max-subscriptions-per-user", std::to_string(others + 1000)})) {
        std::fprintf(stderr, "ksd did not start\n");
        return 1;
    }
    ::setenv("KSINTF_CONN_TYPE", ksd.connType().c_str(), 1);

    // Children first: they must not inherit the library's threads.
    const FanoutResult fan = fanout(ksd.pid(), 10, 10, seconds);

    std::printf("| %-58s | %16s | %16s |\n", "figure", "ksd", "raw baseline");
    std::printf("|%s|%s|%s|\n", std::string(60, '-').c_str(), std::string(18, '-').c_str(),
                std::string(18, '-').c_str());
    const LatencyResult raw = rawLatency(10000, seconds);
    const LatencyResult lat = pacedLatency(10, 10000, seconds);
    row("10k pub/s, 10 subscribers: publications/s kept up", fmt("%.0f", lat.achievedRate),
        fmt("%.0f", raw.achievedRate));
    row("10k pub/s, 10 subscribers: callbacks delivered / expected",
        std::to_string(lat.delivered) + "/" + std::to_string(lat.expected),
        std::to_string(raw.delivered) + "/" + std::to_string(raw.expected));
    row("10k pub/s, 10 subscribers: publish -> callback p50 (us)", fmt("%.1f", lat.p50), fmt("%.1f", raw.p50));
    row("10k pub/s, 10 subscribers: publish -> callback p99 (us)", fmt("%.1f", lat.p99), fmt("%.1f", raw.p99));

    row("100 subscribers in 10 processes: publications/s", fmt("%.0f", fan.publishRate), "-");
    row("100 subscribers in 10 processes: callbacks queued", std::to_string(fan.queued), "-");
    row("100 subscribers in 10 processes: callbacks delivered", std::to_string(fan.delivered), "-");
    row("100 subscribers in 10 processes: callbacks/s sustained", fmt("%.0f", fan.callbackRate), "-");
    const double delivered = static_cast<double>(std::max(fan.delivered, 1L));
    row("  ksd CPU per callback pushed (us)", fmt("%.3f", static_cast<double>(fan.daemonCpuNs) / delivered / 1e3), "-");
    row("  subscriber CPU per callback received (us)",
        fmt("%.3f", static_cast<double>(fan.subscriberCpuNs) / delivered / 1e3), "-");

    // Two daemons side by side, one without subscriptions and one with
    // `others` on events never published; short rounds taken in turn so that
    // the load of the machine falls on both alike.
    kstest::KsdProcess withNone, withMany;
    const std::vector<std::string> options = {"--max-subscriptions-per-user", std::to_string(others + 1000)};
    if (!withNone.start(options) || !withMany.start(options)) return 1;
    QuietListener quiet;
    const auto regStart = Clock::now();
    const int taken = subscribeOthers(withMany.connType(), "pipe:" + quiet.name, others);
    const double regSeconds = std::chrono::duration<double>(Clock::now() - regStart).count();
    kstest::WireClient toNone, toMany;
    if (!toNone.connect(withNone.connType()) || !toMany.connect(withMany.connType())) return 1;
    std::vector<double> none, many;
    for (int round = 0; round < (quick ? 6 : 20); ++round) {
        none.push_back(publishRate(toNone, "bench.quiet", 0.2));
        many.push_back(publishRate(toMany, "bench.quiet", 0.2));
    }
    const std::string label = std::to_string(taken) + " subscriptions on other events: publications/s";
    row(label.c_str(), fmt("%.0f", median(many)), fmt("%.0f", median(none)));
    row("  difference (the baseline column: none, medians of rounds)",
        fmt("%+.1f %%", 100.0 * (median(many) - median(none)) / median(none)), "");
    row("  registrations/s while subscribing them (100 in flight)", fmt("%.0f", taken / regSeconds), "");
    return 0;
}
