// Cluster figures in one run, each beside its one-host counterpart: publish
// → callback p50/p99 at a fixed rate with the publisher on another node and
// on the subscriber's own node, and sequential job create and progress
// rates against the replicated bucket and against a ksd alone; an uncontended
// lock, lock + unlock (the next lock's write waits for the last release's),
// and a lock's hand-over between two nodes (between two clients of one ksd
// alone) p50/p99; last, how long a killed node's lock stays held. It starts a
// three-server NATS cluster (nats-server from the PATH or Debian's), three
// ksd nodes and one ksd without --cluster.
// Usage: cluster_bench [rate/s] [seconds]
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "OrvoCodec.h"
#include "OrvoNotificationNetwork.h"
#include "fake_daemon.h"
#include "ksd_process.h"
#include "nats_cluster.h"

namespace {

using Clock = std::chrono::steady_clock;

std::mutex g_mutex;
std::vector<long> g_latencyNs;
std::atomic<long> g_received{0};

long nowNs() { return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count(); }

void onNotification(const char*, OrvoNNNotification* n) {
    const long sent = std::strtol(n->m_pszData, nullptr, 10);
    const long latency = nowNs() - sent;
    std::lock_guard<std::mutex> lock(g_mutex);
    if (sent > 0) g_latencyNs.push_back(latency);
    g_received.fetch_add(1);
}

double percentileUs(std::vector<long> v, double p) {
    if (v.empty()) return 0;
    const auto k = static_cast<std::size_t>(p * static_cast<double>(v.size() - 1));
    std::nth_element(v.begin(), v.begin() + static_cast<long>(k), v.end());
    return static_cast<double>(v[k]) / 1000.0;
}

bool request(kstest::WireClient& c, const std::string& bytes, std::int64_t& reply) {
    return c.send(bytes) && c.readReply(reply, 10000);
}

bool notify(kstest::WireClient& c, const std::string& event, const std::string& text) {
    std::int64_t reply = 0;
    return request(c,
                   kstest::requestWire("Notifier", "TRVX_NN_NOTIFY")
                       .addString("bench")
                       .addString(event)
                       .addString(text)
                       .addLong(0),
                   reply);
}

// Publishes at `rate` for `seconds` on `publisher`; the subscriber is this process.
void latencyRow(const char* label, const std::string& publisher, const std::string& event, int rate, int seconds) {
    kstest::WireClient c;
    if (!c.connect(publisher)) return (void)std::printf("%s: cannot connect\n", label);
    // Until the first one arrives, the subscription may not have reached every server.
    for (int i = 0; i < 500 && g_received.load() == 0; ++i) {
        notify(c, event, "0");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_latencyNs.clear();
    }
    const long before = g_received.load();
    const long total = static_cast<long>(rate) * seconds;
    const auto interval = std::chrono::nanoseconds(1'000'000'000L / std::max(rate, 1));
    const auto start = Clock::now();
    for (long i = 0; i < total; ++i) {
        std::this_thread::sleep_until(start + i * interval);
        notify(c, event, std::to_string(nowNs()));
    }
    const auto end = Clock::now() + std::chrono::seconds(5);
    while (g_received.load() - before < total && Clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::lock_guard<std::mutex> lock(g_mutex);
    std::printf("%-34s %8ld/%-8ld %9.0f %9.0f\n", label, static_cast<long>(g_latencyNs.size()), total,
                percentileUs(g_latencyNs, 0.5), percentileUs(g_latencyNs, 0.99));
    g_received = 0;
}

// Sequential creates, then progress on the last job, each for `seconds`.
void jobRow(const char* label, const std::string& node, int seconds) {
    kstest::WireClient c;
    if (!c.connect(node)) return (void)std::printf("%s: cannot connect\n", label);
    const std::string prefix = std::string(label).substr(0, 4) + std::to_string(nowNs()) + "-";
    std::int64_t id = 0, reply = 0;
    long created = 0, failed = 0, progressed = 0;
    // A store's first write can wait on things done once (a new stream's leader): not timed.
    request(c, kstest::requestWire("JobStatus", "TRVX_JS_CREATE").addString("bench").addString(prefix + "first"), reply);
    auto end = Clock::now() + std::chrono::seconds(seconds);
    const auto t0 = Clock::now();
    while (Clock::now() < end) {
        const auto w = kstest::requestWire("JobStatus", "TRVX_JS_CREATE")
                           .addString("bench")
                           .addString(prefix + std::to_string(created + failed));
        if (!request(c, w, reply)) break;
        reply > 0 ? (id = reply, ++created) : ++failed;
    }
    const double createS = std::chrono::duration<double>(Clock::now() - t0).count();
    end = Clock::now() + std::chrono::seconds(seconds);
    const auto t1 = Clock::now();
    while (id > 0 && Clock::now() < end) {
        const auto w =
            kstest::requestWire("JobStatus", "TRVX_JS_SET_PROGRESS").addLong(id).addLong(1 + progressed % 99);
        if (!request(c, w, reply)) break;
        reply == 0 ? ++progressed : ++failed;
    }
    const double progressS = std::chrono::duration<double>(Clock::now() - t1).count();
    std::printf("%-34s %10.0f %12.0f %8ld\n", label, static_cast<double>(created) / createS,
                static_cast<double>(progressed) / progressS, failed);
}

std::int64_t lockWire(kstest::WireClient& c, const std::string& name, std::int64_t ms) {
    std::int64_t reply = 0;
    return request(c, kstest::requestWire("Arbiter", "TRVX_RA_LOCK").addString(name).addLong(ms), reply) ? reply : -1;
}

std::int64_t unlockWire(kstest::WireClient& c, std::int64_t handle) {
    std::int64_t reply = 0;
    return request(c, kstest::requestWire("Arbiter", "TRVX_RA_UNLOCK").addLong(handle), reply) ? reply : -1;
}

// A node's first lock, tried until granted: its locks need their epoch
// first. The handle, or <= 0 when none came within 5 s.
std::int64_t firstLock(kstest::WireClient& c, const std::string& name) {
    std::int64_t h = -1;
    for (int i = 0; i < 100 && h <= 0; ++i) {
        if ((h = lockWire(c, name, 0)) <= 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return h;
}

// Uncontended lock + unlock on `node`, one after the other (or `pause`
// apart), for `seconds`; then `rounds` hand-overs: a holder on `node` unlocks
// while a waiter on `other` is queued, timed from the unlock sent to the
// waiter's grant read.
void lockRow(const char* label, const std::string& node, const std::string& other, int seconds, int rounds,
             std::chrono::milliseconds pause = {}) {
    kstest::WireClient holder, waiter;
    if (!holder.connect(node) || !waiter.connect(other)) return (void)std::printf("%s: cannot connect\n", label);
    const std::string name = "bench.lock." + std::to_string(nowNs());
    if (const std::int64_t h = firstLock(holder, name); h > 0) unlockWire(holder, h);
    std::vector<long> lockOnly, pair, handOver;
    long failed = 0;
    // A failure is counted and, the first few times, said with its answers.
    const auto fail = [&](const char* step, std::int64_t a, std::int64_t b) {
        if (++failed <= 3)
            std::fprintf(stderr, "%s: %s failed (%lld, %lld)\n", label, step, (long long)a, (long long)b);
    };
    for (const auto end = Clock::now() + std::chrono::seconds(seconds); Clock::now() < end;) {
        std::this_thread::sleep_for(pause);
        const long t0 = nowNs();
        const std::int64_t h = lockWire(holder, name, 5000);
        const long granted = nowNs();
        const std::int64_t u = h > 0 ? unlockWire(holder, h) : 0;
        if (h <= 0 || u != 0) {
            fail("lock+unlock", h, u);
            continue;
        }
        lockOnly.push_back(granted - t0);
        pair.push_back(nowNs() - t0);
    }
    for (int i = 0; i < rounds; ++i) {
        const std::int64_t h = lockWire(holder, name, 5000);
        std::int64_t granted = 0, unlocked = 0;
        if (h <= 0 ||
            !waiter.send(kstest::requestWire("Arbiter", "TRVX_RA_LOCK").addString(name).addLong(5000).bytes())) {
            fail("hand-over lock", h, 0);
            continue;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // queued by then
        const long t0 = nowNs();
        holder.send(kstest::requestWire("Arbiter", "TRVX_RA_UNLOCK").addLong(h).bytes());
        const bool ok = waiter.readReply(granted, 10000) && granted > h;
        if (ok) handOver.push_back(nowNs() - t0);
        const bool unlockRead = holder.readReply(unlocked, 10000);
        if (!unlockRead || !ok || unlocked != 0) {
            fail("hand-over", granted, unlocked);
            if (granted > 0) unlockWire(waiter, granted);
        } else if (const std::int64_t u = unlockWire(waiter, granted); u != 0) {
            fail("waiter's unlock", granted, u);
        }
    }
    std::printf("%-34s %7.0f %7.0f %7.0f %7.0f %7.0f %7.0f %7ld\n", label, percentileUs(lockOnly, 0.5),
                percentileUs(lockOnly, 0.99), percentileUs(pair, 0.5), percentileUs(pair, 0.99),
                percentileUs(handOver, 0.5), percentileUs(handOver, 0.99), failed);
}

// A lock held through `dying` when that node is killed: how long until a
// waiter on `other` is granted it (the lease, from the node's last renewal).
void deadNodeRow(kstest::KsdProcess& dying, kstest::KsdProcess& other) {
    kstest::WireClient holder, waiter;
    if (!holder.connect(dying.connType()) || !waiter.connect(other.connType()))
        return (void)std::printf("dead node: cannot connect\n");
    const std::string name = "bench.dead." + std::to_string(nowNs());
    const std::int64_t held = firstLock(holder, name);
    std::int64_t granted = 0;
    if (held <= 0 ||
        !waiter.send(kstest::requestWire("Arbiter", "TRVX_RA_LOCK").addString(name).addLong(60000).bytes()))
        return (void)std::printf("dead node: no lock to hold\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // queued by then
    const long t0 = nowNs();
    dying.kill();
    const bool ok = waiter.readReply(granted, 70000) && granted > held;
    std::printf("\na killed node's lock passed on after %.0f ms (lease 10000 ms)%s\n",
                static_cast<double>(nowNs() - t0) / 1e6, ok ? "" : ", not granted");
}

}  // namespace

int main(int argc, char** argv) {
    const int rate = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 3;
    kstest::NatsCluster nats;
    if (!nats.up()) return std::fprintf(stderr, "NATS cluster did not start\n"), 1;
    kstest::KsdProcess nodes[3], alone;
    for (int i = 0; i < 3; ++i)
        if (!nodes[i].start({"--cluster", nats.urls(), "--node", std::string(1, char('A' + i))}))
            return std::fprintf(stderr, "ksd node did not start: %s\n", nodes[i].log().c_str()), 1;
    if (!alone.start()) return std::fprintf(stderr, "ksd did not start\n"), 1;

    ::setenv("KSINTF_CONN_TYPE", nodes[1].connType().c_str(), 1);  // this process subscribes on B
    const std::string event = "bench.cluster." + std::to_string(::getpid());
    if (OrvoNNRegisterForNotification(event.c_str(), onNotification, nullptr) < 0)
        return std::fprintf(stderr, "register failed\n"), 1;
    std::printf("publish -> callback at %d/s for %d s  %17s %9s %9s\n", rate, seconds, "got/sent", "p50 us", "p99 us");
    latencyRow("same node (B -> B)", nodes[1].connType(), event, rate, seconds);
    latencyRow("across nodes (A -> B)", nodes[0].connType(), event, rate, seconds);

    std::printf("\njobs, one client, sequential  %15s %12s %8s\n", "creates/s", "progress/s", "failed");
    jobRow("one host (no --cluster)", alone.connType(), seconds);
    jobRow("cluster, R3 bucket (node A)", nodes[0].connType(), seconds);

    std::printf("\nlocks, us: lock, lock+unlock and hand-over, each p50 p99\n%34s %15s %15s %15s %7s\n", "", "lock",
                "lock+unlock", "hand-over", "failed");
    lockRow("one host (no --cluster)", alone.connType(), alone.connType(), seconds, 200);
    lockRow("cluster (A, hand-over A -> B)", nodes[0].connType(), nodes[1].connType(), seconds, 200);
    // A user's locks also keep the user's count across the cluster; root's do not.
    if (::geteuid() == 0) {
        std::fflush(stdout);
        if (const pid_t child = ::fork(); child == 0) {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(1);
            lockRow("cluster, as uid 65534", nodes[0].connType(), nodes[1].connType(), seconds, 200);
            // A place given back stays a second for its user's next lock: past that, a lock writes its place too.
            lockRow("  the same, locks 1.1 s apart", nodes[0].connType(), nodes[1].connType(), 12, 0,
                    std::chrono::milliseconds(1100));
            std::fflush(stdout);
            ::_exit(0);
        } else if (child > 0) {
            ::waitpid(child, nullptr, 0);
        }
    }
    deadNodeRow(nodes[2], nodes[0]);
    return 0;
}
