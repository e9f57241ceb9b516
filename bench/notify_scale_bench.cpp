// ksd at scale, each figure against a ksd process of its own, printed as a
// table: resident memory with 10,000 idle client connections and 10,000
// subscriptions; time per lock hand-over with 10, 1,000 and 10,000 waiters
// on one resource (and for all of them to leave); start-up and listing with
// 100,000 stored jobs.
// Usage: notify_scale_bench [--quick] [idle|locks|jobs]

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "OrvoJobStatus.h"
#include "OrvoNotificationNetwork.h"
#include "fake_daemon.h"
#include "ksd_process.h"
#include "process_usage.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

void row(const std::string& what, const std::string& value) {
    std::printf("| %-62s | %14s |\n", what.c_str(), value.c_str());
}

std::string fmt(const char* format, double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

// The number after `"key":` in a JSON text, -1 when absent.
long jsonNumber(const std::string& json, const std::string& key) {
    const auto at = json.find("\"" + key + "\":");
    return at == std::string::npos ? -1 : std::atol(json.c_str() + at + key.size() + 3);
}

const std::vector<std::string> kManyClients = {
    "--max-connections", "19000", "--max-connections-per-user", "19000", "--max-subscriptions-per-user", "20000"};

void onNothing(const char*, OrvoNNNotification*) {}

void idleConnections(int connections, int subscriptions) {
    kstest::KsdProcess ksd;
    if (!ksd.start(kManyClients)) return row("ksd did not start", "-");
    ::setenv("KSINTF_CONN_TYPE", ksd.connType().c_str(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long base = kstest::residentKiB(ksd.pid());
    std::vector<std::unique_ptr<kstest::WireClient>> clients;
    for (int i = 0; i < connections; ++i) {
        auto c = std::make_unique<kstest::WireClient>();
        if (!c->connect(ksd.connType())) break;
        clients.push_back(std::move(c));
    }
    // Accepted once the daemon answers a request queued behind them.
    const std::string status = kstest::operatorQuery(ksd.connType(), "status");
    const long open = jsonNumber(status, "connections");
    const long withConnections = kstest::residentKiB(ksd.pid());
    // Spread over 100 events, each published once so that the push connection is live.
    int subscribed = 0;
    for (int i = 0; i < subscriptions; ++i) {
        const std::string event = "scale.ev." + std::to_string(i % 100);
        if (OrvoNNRegisterForNotification(event.c_str(), onNothing, nullptr) >= 0) ++subscribed;
    }
    for (int e = 0; e < 100; ++e) {
        const std::string event = "scale.ev." + std::to_string(e);
        OrvoNNNotification n{"<x/>", nullptr, 0, nullptr};
        OrvoNNNotify(event.c_str(), &n);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const long withAll = kstest::residentKiB(ksd.pid());
    row("ksd RSS at start (MiB)", fmt("%.1f", base / 1024.0));
    row("idle client connections opened / counted by ksd",
        std::to_string(clients.size()) + " / " + std::to_string(open));
    row("ksd RSS with them (MiB)", fmt("%.1f", withConnections / 1024.0));
    row("... and " + std::to_string(subscribed) + " live subscriptions (MiB)", fmt("%.1f", withAll / 1024.0));
    row("  per idle connection (KiB)", fmt("%.2f", static_cast<double>(withConnections - base) / connections));
}

std::string lockRequest(const std::string& resource) {
    return kstest::requestWire("Arbiter", "TRVX_RA_LOCK").addString(resource).addLong(-1).bytes();
}

std::string unlockRequest(std::int64_t handle) {
    return kstest::requestWire("Arbiter", "TRVX_RA_UNLOCK").addLong(handle).bytes();
}

long waiters(kstest::KsdProcess& ksd) {
    return jsonNumber(kstest::operatorQuery(ksd.connType(), "status"), "lock_waiters");
}

// Nanoseconds the process's main thread (ksd's event loop) has run.
long long loopCpuNs(pid_t pid) {
    std::FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/schedstat").c_str(), "r");
    long long ns = -1;
    if (f != nullptr) {
        if (std::fscanf(f, "%lld", &ns) != 1) ns = -1;
        std::fclose(f);
    }
    return ns;
}

// Time per hand-over with `waiterCount` waiters queued all along: unlock the
// holder's handle, the next waiter's grant arrives, and that waiter queues
// again at the back. Beside it the CPU ksd's loop spent per grant, which
// tells ksd's own cost from the kernel's and the client's.
void lockHandOver(int waiterCount) {
    kstest::KsdProcess ksd;
    if (!ksd.start(kManyClients)) return row("ksd did not start", "-");
    const std::string resource = "bench.lock";
    kstest::WireClient control;
    std::int64_t handle = 0;
    if (!control.connect(ksd.connType()) || !control.send(lockRequest(resource)) || !control.readReply(handle, 30000))
        return row("first lock failed", "-");
    std::vector<std::unique_ptr<kstest::WireClient>> queue;
    const std::string lock = lockRequest(resource);
    for (int i = 0; i < waiterCount; ++i) {
        auto c = std::make_unique<kstest::WireClient>();
        if (!c->connect(ksd.connType()) || !c->send(lock)) return row("waiter could not queue", std::to_string(i));
        queue.push_back(std::move(c));
    }
    for (int i = 0; i < 3000 && waiters(ksd) < waiterCount; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const int grants = std::max(waiterCount, 10000);
    const long long cpuBefore = loopCpuNs(ksd.pid());
    const auto start = Clock::now();
    int granted = 0;
    for (int g = 0; g < grants; ++g) {
        auto& c = queue[static_cast<std::size_t>(g % waiterCount)];
        std::int64_t rc = -1;
        if (!control.send(unlockRequest(handle)) || !control.readReply(rc, 30000) || rc != 0) break;
        if (!c->readReply(handle, 30000) || handle <= 0 || !c->send(lock)) break;
        ++granted;
    }
    const double perGrant = secondsSince(start) / granted * 1e6;
    const double cpuPerGrant = static_cast<double>(loopCpuNs(ksd.pid()) - cpuBefore) / granted / 1e3;
    row("lock hand-over with " + std::to_string(waiterCount) + " waiters (us per grant)",
        granted == grants ? fmt("%.1f", perGrant) : "only " + std::to_string(granted));
    row("  ksd loop CPU per grant (us)", fmt("%.1f", cpuPerGrant));

    // A fresh queue, then every waiter hangs up at once.
    for (auto& c : queue) c->close();
    for (int i = 0; i < 3000 && waiters(ksd) > 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::int64_t rc = -1;
    if (!control.send(unlockRequest(handle)) || !control.readReply(rc, 30000)) return;
    if (!control.send(lockRequest(resource)) || !control.readReply(handle, 30000)) return;
    for (auto& c : queue)
        if (!c->connect(ksd.connType()) || !c->send(lock)) return;
    for (int i = 0; i < 3000 && waiters(ksd) < waiterCount; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const auto leave = Clock::now();
    queue.clear();
    while (waiters(ksd) > 0 && secondsSince(leave) < 60) std::this_thread::sleep_for(std::chrono::microseconds(200));
    row("  all " + std::to_string(waiterCount) + " waiters hang up (us per waiter)",
        fmt("%.1f", secondsSince(leave) / waiterCount * 1e6));
}

void storedJobs(int jobs) {
    kstest::KsdProcess ksd;
    if (!ksd.start()) return row("ksd did not start", "-");
    ::setenv("KSINTF_CONN_TYPE", ksd.connType().c_str(), 1);
    const auto create = Clock::now();
    int created = 0;
    for (int i = 0; i < jobs; ++i) {
        const std::string name = "scale-job-" + std::to_string(i);
        if (OrvoJSECreateJob("a job among many", name.c_str()) > 0) ++created;
    }
    row(std::to_string(created) + " jobs created (s)", fmt("%.2f", secondsSince(create)));
    const auto restart = Clock::now();
    if (!ksd.restart()) return row("ksd did not restart", "-");
    row("stop and start again with them, until the pipe answers (ms)", fmt("%.0f", secondsSince(restart) * 1e3));
    const std::string first = kstest::operatorQuery(ksd.connType(), "status");
    row("  ... until its first answer (ms)", fmt("%.0f", secondsSince(restart) * 1e3));
    row("ksd RSS with them (MiB)", fmt("%.1f", kstest::residentKiB(ksd.pid()) / 1024.0));
    const auto list = Clock::now();
    long listed = 0;
    std::string what = "jobs";
    for (;;) {
        const std::string page = kstest::operatorQuery(ksd.connType(), what);
        const auto last = page.rfind("{\"id\":");
        if (last == std::string::npos) break;
        for (std::size_t at = page.find("{\"id\":"); at != std::string::npos; at = page.find("{\"id\":", at + 1))
            ++listed;
        what = "jobs>" + std::to_string(std::atol(page.c_str() + last + 6));
    }
    row("all " + std::to_string(listed) + " jobs listed by pages (s)", fmt("%.2f", secondsSince(list)));
}

}  // namespace

int main(int argc, char** argv) {
    bool quick = false;
    std::string only;  // "idle", "locks" or "jobs": that part alone
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0)
            quick = true;
        else
            only = argv[i];
    }
    std::printf("| %-62s | %14s |\n", "figure", "value");
    std::printf("|%s|%s|\n", std::string(64, '-').c_str(), std::string(16, '-').c_str());
    if (only.empty() || only == "idle") idleConnections(quick ? 2000 : 10000, quick ? 2000 : 10000);
    if (only.empty() || only == "locks")
        for (int n : quick ? std::vector<int>{10, 1000} : std::vector<int>{10, 1000, 10000}) lockHandOver(n);
    if (only.empty() || only == "jobs") storedJobs(quick ? 10000 : 100000);
    return 0;
}
