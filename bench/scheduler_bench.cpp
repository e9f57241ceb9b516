// The scheduler with 10,000 waiting tasks in a real ksd process: time per
// schedule call, the daemon's resident memory, the CPU it spends while
// nothing is due, and the time to list all 10,000 tasks.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "OrvoTaskScheduler.h"
#include "ksd_process.h"

namespace {

constexpr int kTasks = 10000;

// A static object, so that the daemon is stopped when the benchmark exits.
kstest::KsdProcess& daemon() {
    static kstest::KsdProcess ksd;
    if (!ksd.isRunning()) {
        if (!ksd.start()) std::abort();
        ::setenv("KSINTF_CONN_TYPE", ksd.connType().c_str(), 1);
    }
    return ksd;
}

// User plus system CPU time of `pid`, in clock ticks.
long cpuTicks(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::vector<std::string> f{std::istream_iterator<std::string>(fields), std::istream_iterator<std::string>()};
    return f.size() > 12 ? std::stol(f[11]) + std::stol(f[12]) : -1;
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
        const long before = cpuTicks(pid);
        std::this_thread::sleep_for(std::chrono::seconds(3));
        state.counters["ksd_cpu_ms_in_3s"] =
            static_cast<double>(cpuTicks(pid) - before) * 1000.0 / static_cast<double>(::sysconf(_SC_CLK_TCK));
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

}  // namespace

BENCHMARK_MAIN();
