// ks_bench: every figure of the bench suite in one run, each beside the raw
// limit measured in the same run, as one table.
// Usage: ks_bench [--seconds S] [--rounds N] [--only NAME] [--syscalls] [--all]
// --all: then the notification, scale and job-list benches beside it, each
// printing its own table, so that one command gives every figure.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "bench_table.h"
#include "ksd_process.h"

namespace ksbench {

struct Context::Daemon {
    kstest::KsdProcess process;
};

Context::Context(double seconds, int rounds, bool syscalls) : seconds_(seconds), rounds_(rounds), syscalls_(syscalls) {}

Context::~Context() = default;

pid_t Context::ksd() {
    if (!daemon_) {
        daemon_ = std::make_unique<Daemon>();
        if (!daemon_->process.start()) {
            std::fprintf(stderr, "ks_bench: ksd did not start: %s\n", daemon_->process.log().c_str());
            std::exit(1);
        }
        ::setenv("KSINTF_CONN_TYPE", daemon_->process.connType().c_str(), 1);
    }
    return daemon_->process.pid();
}

std::vector<Bench>& registry() {
    static std::vector<Bench> all;
    return all;
}

double rate(double seconds, const std::function<bool()>& op) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    long count = 0;
    // The clock is read once per batch so that reading it costs nothing measurable.
    for (;;) {
        for (int i = 0; i < 64; ++i) {
            if (!op()) return 0;
        }
        count += 64;
        const auto now = Clock::now();
        if (now >= end) return static_cast<double>(count) / std::chrono::duration<double>(now - start).count();
    }
}

std::vector<double> medians(int rounds, const std::vector<std::function<double()>>& measures) {
    std::vector<std::vector<double>> values(measures.size());
    for (int r = 0; r < rounds; ++r)
        for (std::size_t i = 0; i < measures.size(); ++i) values[i].push_back(measures[i]());
    std::vector<double> out;
    for (auto& v : values) {
        std::sort(v.begin(), v.end());
        out.push_back(v.empty() ? 0 : v[v.size() / 2]);
    }
    return out;
}

SyscallCount countSyscalls(pid_t pid, int count, const std::function<bool()>& op) {
    SyscallCount result;
    char file[] = "/tmp/ks_bench_strace_XXXXXX";
    const int fileFd = ::mkstemp(file);
    if (fileFd < 0) {
        result.error = "no temporary file";
        return result;
    }
    ::close(fileFd);
    int errPipe[2];
    if (::pipe(errPipe) != 0) {
        result.error = "no pipe";
        return result;
    }
    const std::string target = std::to_string(pid);
    const pid_t tracer = ::fork();
    if (tracer == 0) {
        ::dup2(errPipe[1], 2);
        ::close(errPipe[0]);
        ::close(errPipe[1]);
        ::execlp("strace", "strace", "-c", "-f", "-p", target.c_str(), "-o", file, static_cast<char*>(nullptr));
        std::fprintf(stderr, "exec strace failed\n");
        std::_Exit(127);
    }
    ::close(errPipe[1]);
    // strace says so on stderr once it holds the process.
    std::string said;
    char c;
    while (said.find("attached") == std::string::npos && ::read(errPipe[0], &c, 1) == 1) said.push_back(c);
    if (said.find("attached") == std::string::npos) {
        ::close(errPipe[0]);
        ::waitpid(tracer, nullptr, 0);
        ::unlink(file);
        result.error = "strace: " + said;
        return result;
    }
    for (int i = 0; i < count; ++i) {
        if (!op()) {
            result.error = "operation failed";
            break;
        }
    }
    ::kill(tracer, SIGINT);
    while (::read(errPipe[0], &c, 1) == 1) {
    }
    ::close(errPipe[0]);
    ::waitpid(tracer, nullptr, 0);
    std::ifstream in(file);
    std::string line;
    std::map<std::string, long> calls;
    long total = 0;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string s; words >> s;) w.push_back(s);
        if (w.size() < 5 || w.back() == "total" || w[0].find_first_not_of("0123456789.") != std::string::npos) continue;
        const long n = std::atol(w[3].c_str());
        calls[w.back()] += n;
        total += n;
    }
    ::unlink(file);
    if (total == 0 && result.error.empty()) result.error = "strace counted nothing";
    result.perOp = static_cast<double>(total) / count;
    for (auto& [name, n] : calls) result.byName.emplace_back(name, static_cast<double>(n) / count);
    std::sort(result.byName.begin(), result.byName.end(),
              [](const auto& a, const auto& b) { return a.second > b.second; });
    return result;
}

}  // namespace ksbench

namespace {

void printTable(const std::vector<ksbench::Row>& rows) {
    std::printf("%-44s %12s  %-36s %12s %7s %7s %9s\n", "figure", "per second", "raw limit (same run)", "per second",
                "ratio", "target", "ksd sc/op");
    for (const auto& r : rows) {
        char ratio[16] = "", target[16] = "", baseline[16] = "", sc[16] = "";
        if (!r.baseline.empty()) {
            std::snprintf(baseline, sizeof baseline, "%.0f", r.baselineValue);
            if (r.baselineValue > 0) std::snprintf(ratio, sizeof ratio, "%.2f", r.value / r.baselineValue);
        }
        if (r.target > 0) std::snprintf(target, sizeof target, ">=%.2f", r.target);
        if (r.syscalls >= 0) std::snprintf(sc, sizeof sc, "%.1f", r.syscalls);
        std::printf("%-44s %12.0f  %-36s %12s %7s %7s %9s\n", r.name.c_str(), r.value, r.baseline.c_str(), baseline,
                    ratio, target, sc);
    }
    for (const auto& r : rows)
        if (!r.syscallDetail.empty()) std::printf("  %s, ksd per op: %s\n", r.name.c_str(), r.syscallDetail.c_str());
}

// Runs the bench program `name` from ks_bench's own directory; false if it failed.
bool runSibling(const char* name) {
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return false;
    self[n] = '\0';
    std::string path(self);
    path = path.substr(0, path.rfind('/') + 1) + name;
    std::printf("\n%s\n", name);
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
        std::_Exit(127);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 1.0;
    int rounds = 3;
    bool syscalls = false;
    bool all = false;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
        } else if (a == "--rounds" && i + 1 < argc) {
            rounds = std::max(1, std::atoi(argv[++i]));
        } else if (a == "--only" && i + 1 < argc) {
            only = argv[++i];
        } else if (a == "--syscalls") {
            syscalls = true;
        } else if (a == "--all") {
            all = true;
        } else {
            std::fprintf(stderr, "usage: ks_bench [--seconds S] [--rounds N] [--only NAME] [--syscalls] [--all]\nbenches:");
            for (const auto& b : ksbench::registry()) std::fprintf(stderr, " %s", b.name.c_str());
            std::fprintf(stderr, "\n");
            return 2;
        }
    }
    ::signal(SIGPIPE, SIG_IGN);
    ksbench::Context context(seconds, rounds, syscalls);
    std::printf("ks_bench: %ld cores, median of %d rounds of %.1f s\n", ::sysconf(_SC_NPROCESSORS_ONLN), rounds,
                seconds);
    std::vector<ksbench::Row> rows;
    for (const auto& bench : ksbench::registry()) {
        if (!only.empty() && bench.name != only) continue;
        auto got = bench.run(context);
        rows.insert(rows.end(), got.begin(), got.end());
    }
    printTable(rows);
    if (!all) return 0;
    std::fflush(stdout);
    bool ok = true;
    for (const char* sibling : {"notify_fanout_bench", "notify_scale_bench", "job_list_bench"})
        ok = runSibling(sibling) && ok;
    return ok ? 0 : 1;
}
