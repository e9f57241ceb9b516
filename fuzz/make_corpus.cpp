// Writes the seed corpus of the fuzz targets into <dir>/{request_parser,
// codec,push_frame}: requests as the client library frames them, values of
// every tag, and push frames as the daemon's notifier encodes them.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "OrvoCodec.h"
#include "services/notifier/push_frame.h"

namespace {

namespace Codec = OrvoNet::Codec;
namespace fs = std::filesystem;

fs::path g_root;

void write(const std::string& target, const std::string& name, const std::string& bytes) {
    const fs::path dir = g_root / target;
    fs::create_directories(dir);
    std::ofstream(dir / name, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// A request's header: version, magic, service, request.
std::string request(std::string_view service, std::string_view name, std::int16_t magic = OrvoNet::Protocol::kMagic) {
    std::string out;
    Codec::putShort(out, OrvoNet::Protocol::kProtocolVersion);
    Codec::putShort(out, magic);
    Codec::putString(out, service);
    Codec::putString(out, name);
    return out;
}

// The parser target's header: flags, then the chunk sizes.
std::string parserInput(std::uint8_t flags, const std::vector<std::uint8_t>& chunks, const std::string& stream) {
    std::string out(1, static_cast<char>(flags));
    out += static_cast<char>(chunks.size() - 1);
    for (std::uint8_t c : chunks) out += static_cast<char>(c - 1);
    return out + stream;
}

void requestSeeds() {
    std::vector<std::pair<std::string, std::string>> reqs;
    std::string r;

    r = request("Notifier", "TRVX_NN_REGISTER");
    Codec::putString(r, "pipe:ksintf-cb-100-1");
    Codec::putString(r, "Orders");
    Codec::putInt(r, 3);
    reqs.emplace_back("nn_register", r);
    r = request("Notifier", "TRVX_NN_UNREGISTER");
    Codec::putString(r, "Orders");
    Codec::putInt(r, 3);
    reqs.emplace_back("nn_unregister", r);
    r = request("Notifier", "TRVX_NN_NOTIFY");
    Codec::putString(r, "udp:127.0.0.1:0");
    Codec::putString(r, "Orders");
    Codec::putString(r, "<order id=\"7\"/>");
    Codec::putLong(r, 5);
    r += "12345";
    reqs.emplace_back("nn_notify", r);

    r = request("Arbiter", "TRVX_RA_LOCK");
    Codec::putString(r, "printer");
    Codec::putLong(r, 5000);
    reqs.emplace_back("ra_lock", r);
    r = request("Arbiter", "TRVX_RA_UNLOCK");
    Codec::putLong(r, 12);
    reqs.emplace_back("ra_unlock", r);

    r = request("JobStatus", "TRVX_JS_CREATE");
    Codec::putString(r, "backup");
    Codec::putString(r, "nightly backup");
    reqs.emplace_back("js_create", r);
    r = request("JobStatus", "TRVX_JS_MAP_JOB");
    Codec::putLong(r, 4);
    Codec::putLong(r, 2);
    Codec::putLong(r, 100);
    Codec::putLong(r, 101);
    reqs.emplace_back("js_map_job", r);
    r = request("JobStatus", "TRVX_JS_SET_PROGRESS");
    Codec::putLong(r, 4);
    Codec::putLong(r, 40);
    reqs.emplace_back("js_set_progress", r);
    reqs.emplace_back("js_get_all_progress", request("JobStatus", "TRVX_JS_GET_ALL_PROGRESS"));

    r = request("Scheduler", "TRVX_TS_SCHEDULE");
    for (const char* s : {"report", "/bin/true", "--quiet", "/tmp"}) Codec::putString(r, s);
    for (std::int64_t v : {0, 2026, 11, 25, 3, 30, 0}) Codec::putLong(r, v);
    Codec::putString(r, "UTC");
    reqs.emplace_back("ts_schedule", r);
    r = request("Scheduler", "TRVX_TS_SCHEDULE_BLOB");
    Codec::putString(r, "blob-task");
    Codec::putInt(r, 4);
    r += "BLOB";
    for (int v : {3, 2026, 11, 25, 3, 30, 0}) Codec::putInt(r, v);
    reqs.emplace_back("ts_schedule_blob", r);
    r = request("Scheduler", "TRVX_TS_EXECUTION_INFO");
    Codec::putLong(r, 9);
    Codec::putLong(r, 1);
    reqs.emplace_back("ts_execution_info", r);

    r = request("KsdOperator", "KSD_OP_QUERY");
    Codec::putString(r, "status");
    reqs.emplace_back("op_query", r);

    std::string all;
    for (const auto& [name, bytes] : reqs) {
        write("request_parser", name, parserInput(0, {64}, bytes));
        all += bytes;
    }
    write("request_parser", "stream_chunks_1_3_7", parserInput(0, {1, 3, 7}, all));
    write("request_parser", "stream_small_limits", parserInput(1, {5, 64}, all));
    // At the small limits exactly: a 48-byte string and a 64-byte raw run.
    r = request("Notifier", "TRVX_NN_NOTIFY");
    Codec::putString(r, "udp:127.0.0.1:0");
    Codec::putString(r, std::string(48, 'e'));
    Codec::putString(r, "");
    Codec::putLong(r, 64);
    r += std::string(64, 'p');
    write("request_parser", "at_small_limits", parserInput(1, {16, 64}, r));
    write("request_parser", "bad_magic", parserInput(0, {2}, request("Arbiter", "TRVX_RA_UNLOCK", 7)));
    write("request_parser", "unknown_service", parserInput(0, {3}, request("Nobody", "TRVX_RA_UNLOCK")));
    r = request("Arbiter", "TRVX_RA_LOCK");
    Codec::putLong(r, 5);  // a long where the name belongs
    write("request_parser", "wrong_field_tag", parserInput(0, {4}, r));
}

void codecSeeds() {
    std::string all(1, '\0');
    Codec::putShort(all, -2);
    Codec::putInt(all, -70000);
    Codec::putLong(all, 1LL << 40);
    Codec::putBool(all, true);
    Codec::putString(all, std::string("text with \0 inside", 18));
    Codec::putString(all, "");
    write("codec", "every_tag", all);
    std::string err(1, '\0');
    Codec::putError(err, 110, "timed out");
    write("codec", "error_value", err);
    std::string longString(1, '\1');
    Codec::putString(longString, std::string(100, 'x'));
    write("codec", "over_small_limit", longString);
    std::string atLimit(1, '\1');
    Codec::putString(atLimit, std::string(64, 'x'));
    write("codec", "at_small_limit", atLimit);
}

std::string frame(std::int32_t id, const std::string& payload) {
    const ksd::FrameHeader h = ksd::frameHeader(id, static_cast<std::uint32_t>(payload.size()));
    return std::string(h.data(), h.size()) + payload;
}

void pushSeeds() {
    const std::string nn = frame(1, ksd::encodeNotification("udp:127.0.0.1:0", "Orders", "<order/>", "abc"));
    std::string job, lock, task;
    Codec::putShort(job, 0);
    Codec::putShort(job, 3);
    Codec::putString(job, "backup");
    Codec::putShort(lock, 0);
    Codec::putShort(lock, 1);
    Codec::putString(lock, "granted");
    Codec::putShort(task, 0);
    Codec::putShort(task, 1);
    Codec::putLong(task, 12);
    write("push_frame", "notification", nn);
    write("push_frame", "job", frame(2, job));
    write("push_frame", "lock", frame(3, lock));
    write("push_frame", "task", frame(4, task));
    write("push_frame", "unknown_id", frame(99, job));
    write("push_frame", "four_frames", nn + frame(2, job) + frame(3, lock) + frame(4, task));
    write("push_frame", "truncated", (nn + frame(4, task)).substr(0, nn.size() + 12));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
        return 2;
    }
    g_root = argv[1];
    requestSeeds();
    codecSeeds();
    pushSeeds();
    return 0;
}
