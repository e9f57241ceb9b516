// What a process the benchmarks started has used, read from /proc.
#ifndef KSBENCH_PROCESS_USAGE_H
#define KSBENCH_PROCESS_USAGE_H

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace kstest {

// Resident memory of a process in KiB (VmRSS), -1 when it cannot be read.
inline long residentKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

// User plus system CPU time of a process, all its threads, in nanoseconds
// (clock-tick resolution); -1 when it cannot be read.
inline std::int64_t processCpuNs(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto name = text.rfind(')');  // the command name may hold spaces
    if (name == std::string::npos) return -1;
    std::istringstream fields(text.substr(name + 2));
    std::vector<std::string> f{std::istream_iterator<std::string>(fields), std::istream_iterator<std::string>()};
    if (f.size() <= 12) return -1;
    return (std::stoll(f[11]) + std::stoll(f[12])) * (1'000'000'000 / ::sysconf(_SC_CLK_TCK));
}

}  // namespace kstest

#endif
