#ifndef KS_BENCH_SUITE_BENCH_TABLE_H
#define KS_BENCH_SUITE_BENCH_TABLE_H

// The one table every ks_bench figure is printed in: a measured rate beside
// the raw limit measured in the same run, their ratio and the ratio aimed at.
// A bench is a named function producing rows; files register theirs with
// KS_BENCH, so that adding figures means adding one file to this folder.

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ksbench {

struct Row {
    std::string name;
    double value = 0;      // per second, the median of the rounds
    std::string baseline;  // what it is measured against; empty: none
    double baselineValue = 0;
    double target = 0;          // the ratio aimed at; 0: none
    double syscalls = -1;       // ksd's system calls per operation; < 0: not counted
    std::string syscallDetail;  // the most frequent ones, "name n, ..."
};

// What every bench shares: the run's settings and one ksd child process.
class Context {
public:
    Context(double seconds, int rounds, bool syscalls);
    ~Context();

    double seconds() const { return seconds_; }
    int rounds() const { return rounds_; }
    // Whether to count ksd's system calls per operation (strace) after the rates.
    bool syscalls() const { return syscalls_; }

    // Started on first use, on its own pipe and state directory; the client
    // library is pointed at it. Returns ksd's pid.
    pid_t ksd();

private:
    struct Daemon;
    double seconds_;
    int rounds_;
    bool syscalls_;
    std::unique_ptr<Daemon> daemon_;
};

// Operations per second of `op` over `seconds` (op returns false on failure,
// which ends the round and makes the figure 0).
double rate(double seconds, const std::function<bool()>& op);
// The median of `rounds` calls of `measure`, the calls of several measures
// interleaved so that a passing disturbance touches each alike.
std::vector<double> medians(int rounds, const std::vector<std::function<double()>>& measures);

// ksd's system calls over `count` calls of `op`, per op, by name (strace -c -f -p).
struct SyscallCount {
    double perOp = 0;
    std::vector<std::pair<std::string, double>> byName;  // most frequent first
    std::string error;                                   // non-empty: not measured
};
SyscallCount countSyscalls(pid_t pid, int count, const std::function<bool()>& op);

struct Bench {
    std::string name;
    std::function<std::vector<Row>(Context&)> run;
};
std::vector<Bench>& registry();

struct Registrar {
    Registrar(std::string name, std::function<std::vector<Row>(Context&)> run) {
        registry().push_back({std::move(name), std::move(run)});
    }
};

}  // namespace ksbench

#define KS_BENCH_CONCAT2(a, b) a##b
#define KS_BENCH_CONCAT(a, b) KS_BENCH_CONCAT2(a, b)
#define KS_BENCH(name, fn) static ::ksbench::Registrar KS_BENCH_CONCAT(ksBenchRegistrar, __LINE__)(name, fn)

#endif
