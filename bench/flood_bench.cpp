// Another user's request latency while one user floods ksd: 10,000
// connections opened again and again (over its per-user limit), 16
// notifications announced at 60 MiB and never finished, and one connection
// pipelining requests without ever reading a reply. Prints p50/p99 of a
// bystander's connect-per-call status query, alone and during each flood, and
// ksd's resident memory. Needs root: the users are played by child processes.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fake_daemon.h"
#include "ksd_process.h"
#include "process_usage.h"
#include "other_user.h"

namespace {

using Clock = std::chrono::steady_clock;
using kstest::OtherUser;
using kstest::WireClient;

// "p50 p99" in microseconds of `calls` status queries, each on a new connection.
std::string bystander(const std::string& address, int calls) {
    std::vector<double> us;
    for (int i = 0; i < calls; ++i) {
        const auto t0 = Clock::now();
        if (kstest::operatorQuery(address, "status").empty()) return "failed";
        us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    std::sort(us.begin(), us.end());
    char out[64];
    std::snprintf(out, sizeof out, "%.0f %.0f", us[us.size() / 2], us[us.size() * 99 / 100]);
    return out;
}

void raiseDescriptorLimit() {
    rlimit r{};
    if (::getrlimit(RLIMIT_NOFILE, &r) == 0) {
        r.rlim_cur = r.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &r);
    }
}

// Opens 10,000 connections, keeps what ksd keeps, and goes on opening for `seconds`.
std::string connectionFlood(const std::string& address, int seconds) {
    raiseDescriptorLimit();
    std::vector<std::unique_ptr<WireClient>> held;
    long opened = 0;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        for (int i = 0; i < 10000; ++i) {
            auto c = std::make_unique<WireClient>();
            if (!c->connect(address)) break;
            ++opened;
            held.push_back(std::move(c));
        }
        held.clear();
    }
    return std::to_string(opened);
}

// Sixteen notifications announcing 60 MiB each, fed until ksd stops reading them.
std::string unfinishedFlood(const std::string& address, int seconds) {
    std::vector<std::unique_ptr<WireClient>> clients;
    const std::string head = kstest::requestWire("Notifier", "TRVX_NN_NOTIFY")
                                 .addString("udp:127.0.0.1:0")
                                 .addString("flood")
                                 .addString("")
                                 .addLong(60L << 20)
                                 .bytes();
    const std::string chunk(256 * 1024, '\0');
    for (int i = 0; i < 16; ++i) {
        clients.push_back(std::make_unique<WireClient>());
        if (!clients.back()->connect(address) || !clients.back()->send(head)) return "connect failed";
        ::fcntl(clients.back()->fd(), F_SETFL, O_NONBLOCK);
    }
    long sent = 0;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        for (auto& c : clients) {
            const ssize_t n = ::send(c->fd(), chunk.data(), chunk.size(), MSG_NOSIGNAL);
            if (n > 0) sent += n;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return std::to_string(sent >> 20) + " MiB";
}

// One connection pipelining status queries for `seconds` and never reading a reply.
std::string pipelineWithoutReading(const std::string& address, int seconds) {
    WireClient c;
    if (!c.connect(address)) return "connect failed";
    ::fcntl(c.fd(), F_SETFL, O_NONBLOCK);
    std::string many;
    for (int i = 0; i < 1000; ++i)
        many += kstest::requestWire("KsdOperator", "KSD_OP_QUERY").addString("status").bytes();
    long sent = 0;
    std::size_t at = 0;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        const ssize_t n = ::send(c.fd(), many.data() + at, many.size() - at, MSG_NOSIGNAL);
        if (n > 0) {
            sent += n;
            at = (at + static_cast<std::size_t>(n)) % many.size();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return std::to_string(sent >> 10) + " KiB";
}

}  // namespace

int main() {
    if (::geteuid() != 0) {
        std::fprintf(stderr, "flood_bench: needs root to play two users\n");
        return 77;
    }
    kstest::KsdProcess ksd;
    if (!ksd.start()) return 1;
    const std::string address = "pipe:" + ksd.pipeName();
    constexpr int kCalls = 3000;
    constexpr uid_t kBystander = kstest::kOtherUid - 1;
    const auto measure = [&] {
        auto b = OtherUser::start([&](OtherUser::Keep&) { return bystander(address, kCalls); }, kBystander);
        return b->result();
    };
    // One row: the bystander's figures while `attacker` (none for the first
    // row) runs as another user, then what the attacker says it did.
    const auto row = [&](const char* label, std::function<std::string()> attacker, const char* unit) {
        std::unique_ptr<OtherUser> other;
        if (attacker) {
            other = OtherUser::start([&](OtherUser::Keep&) { return attacker(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        const std::string figures = measure();
        const long rssMiB = kstest::residentKiB(ksd.pid()) / 1024;
        std::printf("%-44s %10s %10s %7ld MiB", label, figures.substr(0, figures.find(' ')).c_str(),
                    figures.substr(figures.find(' ') + 1).c_str(), rssMiB);
        if (other) std::printf("  (%s %s)", other->result().c_str(), unit);
        std::printf("\n");
    };
    std::printf("%-44s %10s %10s %10s\n", "bystander status query (connect per call)", "p50 us", "p99 us", "ksd RSS");
    row("alone", nullptr, "");
    row("during a 10,000-connection flood", [&] { return connectionFlood(address, 4); }, "connections opened");
    row("during 16 unfinished 60 MiB notifications", [&] { return unfinishedFlood(address, 4); }, "taken by ksd");
    row("during a client that never reads its replies", [&] { return pipelineWithoutReading(address, 4); },
        "taken by ksd");
    return 0;
}
