// The scheduler with 10,000 waiting tasks in a real ksd process: time per
// schedule call, the daemon's resident memory, the CPU it spends while
// nothing is due, the time to list all 10,000 tasks, and the longest wait of
// another client while 2,000 programs fall due in the same second.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "OrvoTaskScheduler.h"
#include "fake_daemon.h"
#include "ksd_process.h"
#include "process_usage.h"

namespace {

constexpr int kTasks = 10000;

// A static object, so that the daemon is stopped when the benchmark exits.
kstest::KsdProcess& daemon() {
    static kstest::KsdProcess ksd;
    if (!ksd.isRunning()) {
        // Room for all 2,000 programs due at once to start.
        if (!ksd.start({"--max-programs", "2048", "--log-level", "error"})) std::abort();
        ::setenv("KSINTF_CONN_TYPE", ksd.connType().c_str(), 1);
    }
    return ksd;
}

void BM_ScheduleDailyTask(benchmark::State& state) {
    const pid_t pid = daemon().pid();
    // A year ahead: nothing falls due while the benchmark runs.
    const std::time_t t = std::time(nullptr) + 365 * 86400;
    std::tm w{};
    localtime_r(&t, &w);
    int n = 0;
    for (auto _ : state) {
        const std::string name = "bench-" + std::to_string(n++);
        if (OrvoTSScheduleTask(name.c_str(), "/bin/true", "/", "", cDaily, w.tm_mon + 1, w.tm_mday, w.tm_year + 1900,
                               w.tm_hour, w.tm_min, w.tm_sec, "") <= 0) {
            state.SkipWithError("schedule failed");
            break;
        }
    }
    state.counters["ksd_rss_KiB"] = static_cast<double>(kstest::residentKiB(pid));
}
BENCHMARK(BM_ScheduleDailyTask)->Iterations(kTasks)->Unit(benchmark::kMicrosecond);

void BM_IdleCpuWithTenThousandTasks(benchmark::State& state) {
    const pid_t pid = daemon().pid();
    for (auto _ : state) {
        const std::int64_t before = kstest::processCpuNs(pid);
        std::this_thread::sleep_for(std::chrono::seconds(3));
        state.counters["ksd_cpu_ms_in_3s"] = static_cast<double>(kstest::processCpuNs(pid) - before) / 1e6;
    }
}
BENCHMARK(BM_IdleCpuWithTenThousandTasks)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_ListTenThousandTasks(benchmark::State& state) {
    std::vector<char> buf(4 << 20);
    for (auto _ : state) {
        int size = static_cast<int>(buf.size());
        if (OrvoTSListAllExecTasks(&size, buf.data()) != 0) {
            state.SkipWithError("list failed");
            break;
        }
        state.counters["list_bytes"] = static_cast<double>(size);
    }
}
BENCHMARK(BM_ListTenThousandTasks)->Iterations(20)->Unit(benchmark::kMillisecond);

void BM_StallWhileTwoThousandTasksFallDue(benchmark::State& state) {
    const std::string address = daemon().connType();
    for (auto _ : state) {
        const std::time_t due = std::time(nullptr) + 5;
        std::tm w{};
        localtime_r(&due, &w);
        for (int i = 0; i < 2000; ++i) {
            const std::string name = "due-" + std::to_string(due) + "-" + std::to_string(i);
            if (OrvoTSScheduleTask(name.c_str(), "/bin/true", "/", "", cOneTime, w.tm_mon + 1, w.tm_mday,
                                   w.tm_year + 1900, w.tm_hour, w.tm_min, w.tm_sec, "") <= 0) {
                state.SkipWithError("schedule failed");
                return;
            }
        }
        // Another client asks ksd's status over and over, on a connection of its own each time.
        double longest = 0;
        int asked = 0;
        const auto end = std::chrono::system_clock::from_time_t(due) + std::chrono::seconds(8);
        while (std::chrono::system_clock::now() < end) {
            const auto t0 = std::chrono::steady_clock::now();
            if (kstest::operatorQuery(address, "status").empty()) {
                state.SkipWithError("status query failed");
                return;
            }
            longest = std::max(
                longest, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
            ++asked;
        }
        state.counters["longest_status_ms"] = longest;
        state.counters["status_queries"] = asked;
    }
}
BENCHMARK(BM_StallWhileTwoThousandTasksFallDue)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
