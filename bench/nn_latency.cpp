// Publish → callback latency of the C notification path at a fixed rate, in
// one process: the baseline beside which bench/java/NncBench.java is read.
// Usage: nn_latency [rate/s] [seconds]; KSINTF_CONN_TYPE names the daemon.
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

#include "OrvoNotificationNetwork.h"

namespace {

using Clock = std::chrono::steady_clock;

std::mutex g_mutex;
std::vector<long> g_latencyNs;
std::atomic<long> g_received{0};

void onNotification(const char*, OrvoNNNotification* pNotification) {
    const long sent = std::strtol(pNotification->m_pszData, nullptr, 10);
    const long now = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
    std::lock_guard<std::mutex> lock(g_mutex);
    g_latencyNs.push_back(now - sent);
    g_received.fetch_add(1);
}

double percentileUs(std::vector<long>& v, double p) {
    if (v.empty()) return 0;
    const auto k = static_cast<std::size_t>(p * static_cast<double>(v.size() - 1));
    std::nth_element(v.begin(), v.begin() + static_cast<long>(k), v.end());
    return static_cast<double>(v[k]) / 1000.0;
}

}  // namespace

int main(int argc, char** argv) {
    const int rate = argc > 1 ? std::atoi(argv[1]) : 10000;
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 3;
    const std::string event = "bench.nn." + std::to_string(::getpid());
    const int handle = OrvoNNRegisterForNotification(event.c_str(), onNotification, nullptr);
    if (handle < 0) {
        std::fprintf(stderr, "register failed: %d\n", handle);
        return 1;
    }
    const long total = static_cast<long>(rate) * seconds;
    const auto interval = std::chrono::nanoseconds(1'000'000'000L / std::max(rate, 1));
    const auto start = Clock::now();
    for (long i = 0; i < total; ++i) {
        std::this_thread::sleep_until(start + i * interval);
        const std::string text =
            std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count());
        OrvoNNNotification n{text.c_str(), nullptr, 0, nullptr};
        OrvoNNNotify(event.c_str(), &n);
    }
    const double sendSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (int i = 0; i < 200 && g_received.load() < total; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    OrvoNNUnregisterForNotification(handle);
    std::lock_guard<std::mutex> lock(g_mutex);
    std::printf("C callback   rate %6d/s  sent %ld in %.2f s  received %ld  p50 %7.1f us  p99 %7.1f us\n", rate, total,
                sendSeconds, g_received.load(), percentileUs(g_latencyNs, 0.5), percentileUs(g_latencyNs, 0.99));
    return g_received.load() == total ? 0 : 2;
}
