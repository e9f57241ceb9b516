// A real ksd holding 100,000 jobs: the latency of short requests
// (OrvoJSEGetJobProgress, paced) from a few clients, first alone, then while
// one more client lists every job over and over, page after page as ksctl
// does; then the wall time of `ksctl job list` and `ksctl --json job list`.
// A plain program: the figure of interest is a percentile under a concurrent
// load, which a Google Benchmark loop does not express.
//
//   job_list_bench [--jobs N] [--clients K] [--seconds S] [--rate R]

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "OrvoCodec.h"
#include "OrvoJobStatus.h"
#include "fake_daemon.h"
#include "ksd_process.h"

extern char** environ;

namespace {

namespace Codec = OrvoNet::Codec;
using Clock = std::chrono::steady_clock;

struct Options {
    int jobs = 100000;
    int clients = 2;
    int seconds = 5;
    int rate = 500;  // requests per second per client
};

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const int value = std::atoi(argv[i + 1]);
        if (key == "--jobs")
            o.jobs = value;
        else if (key == "--clients")
            o.clients = value;
        else if (key == "--seconds")
            o.seconds = value;
        else if (key == "--rate")
            o.rate = value;
    }
    return o;
}

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Creates the jobs on one connection, a batch of requests at a time, as the
// library would make them one by one, only faster.
bool createJobs(const std::string& address, int count) {
    kstest::WireClient client;
    if (!client.connect(address)) return false;
    constexpr int kBatch = 256;
    const std::string description = "nightly export of the order book to the archive, part ";
    for (int first = 0; first < count; first += kBatch) {
        const int n = std::min(kBatch, count - first);
        std::string batch;
        for (int i = first; i < first + n; ++i) {
            kstest::Wire w = kstest::requestWire("JobStatus", "TRVX_JS_CREATE");
            w.addString(description + std::to_string(i)).addString("job-" + std::to_string(i));
            batch += w.bytes();
        }
        if (!client.send(batch)) return false;
        for (int i = 0; i < n; ++i) {
            Codec::Value id, end1, end2;
            if (!client.readValue(id, 30000) || !client.readValue(end1) || !client.readValue(end2)) return false;
            if (id.tag != Codec::kTagLong || id.integer <= 0) return false;
        }
    }
    return true;
}

// Every page of the job list, each asked on a connection of its own; the
// number of jobs listed, or -1 on a failure.
long listAllJobs(const std::string& address) {
    long listed = 0;
    std::string after = "0";
    for (;;) {
        const std::string page = kstest::operatorQuery(address, "jobs>" + after);
        if (page.size() < 2) return -1;
        if (page == "[]") return listed;
        const std::size_t last = page.rfind("{\"id\":");
        if (last == std::string::npos) return -1;
        const std::size_t digits = last + 6;
        after = page.substr(digits, page.find(',', digits) - digits);
        for (std::size_t at = page.find("{\"id\":"); at != std::string::npos; at = page.find("{\"id\":", at + 1))
            ++listed;
    }
}

struct Latencies {
    std::vector<double> ms;
    long failures = 0;
};

// `clients` threads ask a job's progress `rate` times a second each, for
// `seconds`; each call's time is taken from its scheduled start, so a stalled
// daemon shows in the figures rather than in a lower request count.
Latencies measure(const Options& o, int jobs) {
    std::vector<Latencies> perClient(static_cast<std::size_t>(o.clients));
    std::vector<std::thread> threads;
    const auto period = std::chrono::microseconds(1000000 / std::max(1, o.rate));
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(o.seconds);
    for (int c = 0; c < o.clients; ++c) {
        threads.emplace_back([&, c] {
            std::mt19937 random(static_cast<unsigned>(c) + 1);
            std::uniform_int_distribution<int> pick(1, jobs);
            Latencies& mine = perClient[static_cast<std::size_t>(c)];
            for (auto due = start + period * c / o.clients; due < end; due += period) {
                std::this_thread::sleep_until(due);
                const int progress = OrvoJSEGetJobProgress(pick(random));
                const auto done = Clock::now();
                if (progress < 0) ++mine.failures;
                mine.ms.push_back(ms(done - due));
                // Behind schedule: skip the missed slots instead of bursting.
                while (due + period < done) due += period;
            }
        });
    }
    for (auto& t : threads) t.join();
    Latencies all;
    for (auto& l : perClient) {
        all.ms.insert(all.ms.end(), l.ms.begin(), l.ms.end());
        all.failures += l.failures;
    }
    std::sort(all.ms.begin(), all.ms.end());
    return all;
}

double percentile(const std::vector<double>& sorted, double p) {
    if (sorted.empty()) return 0;
    const auto i = static_cast<std::size_t>(p * static_cast<double>(sorted.size() - 1));
    return sorted[i];
}

void report(const char* phase, const Latencies& l) {
    std::printf("%-28s requests %6zu  failures %ld  p50 %7.3f ms  p99 %7.3f ms  max %8.3f ms\n", phase, l.ms.size(),
                l.failures, percentile(l.ms, 0.50), percentile(l.ms, 0.99), l.ms.empty() ? 0.0 : l.ms.back());
}

// Runs ksctl with its output thrown away: the wall time, or a negative value on a failure.
double timeKsctl(const std::vector<std::string>& args) {
    std::vector<std::string> all = {kstest::testBinaryDir() + "/tools/ksctl/ksctl"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    const auto start = Clock::now();
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    int status = 0;
    ::waitpid(pid, &status, 0);
    const double took = ms(Clock::now() - start);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? took : -1;
}

}  // namespace

int main(int argc, char** argv) {
    const Options o = parse(argc, argv);
    kstest::KsdProcess ksd;
    if (!ksd.start()) {
        std::fprintf(stderr, "job_list_bench: ksd did not start\n");
        return 1;
    }
    ::setenv("KSINTF_CONN_TYPE", ksd.connType().c_str(), 1);
    std::printf("machine: %u hardware threads\n", std::thread::hardware_concurrency());

    const auto created = Clock::now();
    if (!createJobs(ksd.connType(), o.jobs)) {
        std::fprintf(stderr, "job_list_bench: creating the jobs failed\n");
        return 1;
    }
    std::printf("created %d jobs in %.0f ms\n", o.jobs, ms(Clock::now() - created));

    const auto listStart = Clock::now();
    const long listed = listAllJobs(ksd.connType());
    std::printf("one full listing: %ld jobs in %.0f ms\n", listed, ms(Clock::now() - listStart));
    if (listed != o.jobs) return 1;

    std::printf("%d clients, %d requests/s each, %d s per phase\n", o.clients, o.rate, o.seconds);
    report("quiet", measure(o, o.jobs));

    std::atomic<bool> stop{false};
    std::atomic<long> listings{0};
    std::atomic<bool> listFailed{false};
    std::thread lister([&] {
        while (!stop) {
            if (listAllJobs(ksd.connType()) != o.jobs) listFailed = true;
            ++listings;
        }
    });
    const auto busyStart = Clock::now();
    const Latencies busy = measure(o, o.jobs);
    stop = true;
    lister.join();
    report("while listing in a loop", busy);
    std::printf("full listings meanwhile: %ld (%.0f ms each)%s\n", listings.load(),
                ms(Clock::now() - busyStart) / static_cast<double>(std::max(1L, listings.load())),
                listFailed ? "  SOME FAILED" : "");

    for (const bool json : {false, true}) {
        std::vector<double> runs;
        for (int i = 0; i < 3; ++i) {
            std::vector<std::string> args = {"--pipe", ksd.pipeName()};
            if (json) args.push_back("--json");
            args.insert(args.end(), {"job", "list"});
            runs.push_back(timeKsctl(args));
        }
        std::sort(runs.begin(), runs.end());
        std::printf("ksctl %sjob list: %.0f / %.0f / %.0f ms (3 runs, sorted)\n", json ? "--json " : "", runs[0],
                    runs[1], runs[2]);
    }
    return listFailed ? 1 : 0;
}
