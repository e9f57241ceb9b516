// The request path: a read and a write request, each on a connection of its
// own, beside raw connect-per-request; a publication on the library's shared
// connection beside a raw ping-pong on one kept connection.

#include <unistd.h>

#include <cstdio>
#include <string>

#include "OrvoCodec.h"
#include "OrvoJobStatus.h"
#include "OrvoNotificationNetwork.h"
#include "bench_table.h"
#include "fake_daemon.h"
#include "raw_server.h"

namespace ksbench {
namespace {

namespace Codec = OrvoNet::Codec;

constexpr int kPayloadBytes = 64;

std::string longReply() {
    std::string s;
    Codec::putLong(s, 0);
    Codec::putShort(s, 0);
    Codec::putShort(s, 7777);
    return s;
}

// What the library sends for the requests below, byte for byte in size.
std::string setProgressRequest() {
    return kstest::requestWire("JobStatus", "TRVX_JS_SET_PROGRESS").addLong(1).addLong(40);
}

std::string notifyRequest(const std::string& event) {
    return kstest::requestWire("Notifier", "TRVX_NN_NOTIFY")
        .addString("udp:127.0.0.1:0")
        .addString(event)
        .addString("<tick/>")
        .addLong(kPayloadBytes)
        .addRaw(std::string(kPayloadBytes, '\0'));
}

std::string detail(const SyscallCount& c) {
    if (!c.error.empty()) return "not counted (" + c.error + ")";
    std::string out;
    char buf[64];
    for (const auto& [name, n] : c.byName) {
        if (n < 0.05) continue;
        std::snprintf(buf, sizeof buf, "%s%s %.1f", out.empty() ? "" : ", ", name.c_str(), n);
        out += buf;
    }
    return out;
}

void addSyscalls(Context& context, Row& row, int count, const std::function<bool()>& op) {
    const SyscallCount c = countSyscalls(context.ksd(), count, op);
    if (c.error.empty()) row.syscalls = c.perOp;
    row.syscallDetail = detail(c);
}

std::vector<Row> requestPath(Context& context) {
    context.ksd();
    const int jobId = OrvoJSECreateJob("bench job", ("ks_bench-" + std::to_string(::getpid())).c_str());
    if (jobId <= 0) {
        std::fprintf(stderr, "ks_bench: could not create a job (%d)\n", jobId);
        return {};
    }
    const std::string event = "ks_bench." + std::to_string(::getpid());
    RawServer rawOnce(setProgressRequest(), longReply());
    RawServer rawKept(notifyRequest(event), longReply());
    const int keptFd = rawConnect(rawKept);
    if (keptFd < 0) return {};

    int progress = 0;
    char payload[kPayloadBytes] = {};
    OrvoNNNotification notification{"<tick/>", payload, sizeof payload, nullptr};
    const std::function<bool()> raw = [&] { return rawConnectPerRequest(rawOnce); };
    const std::function<bool()> get = [&] { return OrvoJSEGetJobProgress(jobId) >= 0; };
    const std::function<bool()> set = [&] { return OrvoJSESetJobProgress(jobId, ++progress % 100) == 0; };
    const std::function<bool()> pingPong = [&] { return rawPingPong(keptFd, rawKept); };
    const std::function<bool()> notify = [&] { return OrvoNNNotify(event.c_str(), &notification) >= 0; };

    const double s = context.seconds();
    const auto m = medians(context.rounds(),
                           {[&] { return rate(s, raw); }, [&] { return rate(s, get); }, [&] { return rate(s, set); },
                            [&] { return rate(s, pingPong); }, [&] { return rate(s, notify); }});
    const std::string rawName = "raw Unix, connect per request";
    const std::string keptName = "raw Unix, ping-pong on one connection";
    const auto row = [](std::string name, double value, std::string baseline, double baselineValue, double target) {
        Row r;
        r.name = std::move(name);
        r.value = value;
        r.baseline = std::move(baseline);
        r.baselineValue = baselineValue;
        r.target = target;
        return r;
    };
    std::vector<Row> rows = {
        row("JobStatus get progress, connect per call", m[1], rawName, m[0], 0.9),
        row("JobStatus set progress, connect per call", m[2], rawName, m[0], 0.8),
        row("Notifier notify, shared connection", m[4], keptName, m[3], 0.8),
    };
    if (context.syscalls()) {
        addSyscalls(context, rows[0], 5000, get);
        addSyscalls(context, rows[1], 5000, set);
        addSyscalls(context, rows[2], 20000, notify);
    }
    ::close(keptFd);
    return rows;
}

KS_BENCH("requests", requestPath);

}  // namespace
}  // namespace ksbench
