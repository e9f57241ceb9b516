// libFuzzer target for ksd's request parser, fed through the daemon's real
// catalog (every service's field plans). The input is a header that chooses
// the limits and the chunk sizes, then a stream of requests. The stream is
// parsed once whole and once in those chunks, and both must agree request by
// request: result, end offset, names, fields and error; an accepted request
// must stay within the limits.
#include <unistd.h>

#include <asio/io_context.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "protocol/request_parser.h"
#include "services/notifier/notifier_service.h"
#include "services/operator/operator_service.h"
#include "services/registry.h"

namespace {

using ksd::RequestParser;
using Result = RequestParser::Result;

[[noreturn]] void fault(const char* what) {
    std::fprintf(stderr, "request_parser_fuzz: %s\n", what);
    std::abort();
}
void check(bool ok, const char* what) {
    if (!ok) fault(what);
}

// The daemon's catalog, built once: the parser only asks it for plans, so
// the services never handle a request here.
struct Catalog {
    std::filesystem::path stateDir;
    asio::io_context io;
    ksd::Registry registry;

    Catalog() {
        char dir[] = "/tmp/ks-fuzz-parser-XXXXXX";
        if (::mkdtemp(dir) == nullptr) fault("mkdtemp failed");
        stateDir = dir;
        auto notifier = std::make_unique<ksd::NotifierService>(io);
        ksd::EventPublisher& events = *notifier;
        registry.add(std::move(notifier));
        ksd::ServiceContext context{io, events, stateDir, {}, nullptr, {}, {}};
        ksd::registerServices(registry, context);
        registry.add(std::make_unique<ksd::OperatorService>(registry, [] { return std::vector<ksd::StatusItem>{}; }));
    }
    ~Catalog() {
        registry.clear();
        std::error_code ignored;
        std::filesystem::remove_all(stateDir, ignored);
    }
};

Catalog& catalog() {
    static Catalog* s = new Catalog();  // outlives every input; removed at exit
    static const bool s_cleanup = (std::atexit([] { delete s; }), true);
    (void)s_cleanup;
    return *s;
}

// What one parse of one request came to.
struct Outcome {
    Result result;
    std::size_t end;  // offset in the stream just after the request's last byte
    std::string service, request;
    std::vector<ksd::Value> fields;
    int errorCode;
    std::string errorMessage;

    // Where a refused request ends is not compared: its bytes that came in
    // earlier chunks were already taken, and the connection closes anyway.
    bool operator==(const Outcome& o) const {
        if (result != o.result || (result != Result::bad && end != o.end) || service != o.service ||
            request != o.request || errorCode != o.errorCode || errorMessage != o.errorMessage ||
            fields.size() != o.fields.size())
            return false;
        for (std::size_t i = 0; i < fields.size(); ++i)
            if (fields[i].tag != o.fields[i].tag || fields[i].integer != o.fields[i].integer ||
                fields[i].text != o.fields[i].text)
                return false;
        return true;
    }
};

void dump(const char* title, const std::vector<Outcome>& outcomes) {
    std::fprintf(stderr, "%s:\n", title);
    for (const Outcome& o : outcomes)
        std::fprintf(stderr, "  result %d end %zu %s/%s fields %zu error %d %s\n", static_cast<int>(o.result), o.end,
                     o.service.c_str(), o.request.c_str(), o.fields.size(), o.errorCode, o.errorMessage.c_str());
}

// An accepted request stays within the limits, whatever its plan asked for.
void checkLimits(const ksd::ParserLimits& limits, const Outcome& o) {
    check(o.service.size() <= limits.maxNameLength && o.request.size() <= limits.maxNameLength,
          "a name over the limit was accepted");
    for (const ksd::Value& v : o.fields) {
        if (v.tag == OrvoNet::Codec::kTagString) check(v.text.size() <= limits.maxString, "a string over the limit");
        if (v.tag == 0) check(v.text.size() <= limits.maxRaw, "a raw run over the limit");
    }
}

Outcome record(const ksd::ParserLimits& limits, RequestParser& p, Result r, std::size_t end) {
    Outcome o{r, end, {}, {}, {}, p.errorCode(), p.errorMessage()};
    if (r == Result::good) {
        o.service = p.service();
        o.request = p.request();
        o.fields = p.fields();
        checkLimits(limits, o);
    } else if (r == Result::bad) {
        check(p.errorCode() != 0, "a refused request has no error code");
    }
    return o;
}

// A finished parser answers the same again without taking a byte.
void checkSettled(RequestParser& p, Result r, const char* data, std::size_t size) {
    std::size_t consumed = 1;
    check(p.parse(data, size, consumed) == r && consumed == 0, "a finished parse changed or consumed");
}

// One request after another, each with a fresh parser, every byte at once.
std::vector<Outcome> parseWhole(const ksd::ParserLimits& limits, const char* data, std::size_t size) {
    std::vector<Outcome> out;
    std::size_t at = 0;
    while (at < size) {
        RequestParser p(catalog().registry, limits);
        std::size_t consumed = 0;
        const Result r = p.parse(data + at, size - at, consumed);
        check(consumed <= size - at, "consumed more than given");
        at += consumed;
        if (r == Result::indeterminate) {
            check(at == size, "an unfinished request left bytes unread");
            check(p.started(), "an unfinished request is not marked started");
            out.push_back({r, at, {}, {}, {}, 0, {}});
            break;
        }
        out.push_back(record(limits, p, r, at));
        checkSettled(p, r, data + at, size - at);
        if (r == Result::bad) break;  // the daemon drops the connection here
    }
    return out;
}

// The same stream in the given chunk sizes (cycled), with one parser reset
// between requests, as a connection does.
std::vector<Outcome> parseSplit(const ksd::ParserLimits& limits, RequestParser& p,
                                const std::vector<std::size_t>& chunks, const char* data, std::size_t size) {
    std::vector<Outcome> out;
    std::size_t at = 0, next = 0;
    std::size_t chunkEnd = std::min(size, chunks[0]);
    while (at < size) {
        std::size_t consumed = 0;
        const std::size_t given = chunkEnd - at;
        const Result r = p.parse(data + at, given, consumed);
        check(consumed <= given, "consumed more than given");
        at += consumed;
        if (r == Result::indeterminate) {
            check(consumed == given, "an unfinished request left bytes of its chunk unread");
            if (at == size) {
                check(p.started(), "an unfinished request is not marked started");
                out.push_back({r, at, {}, {}, {}, 0, {}});
                break;
            }
            next = (next + 1) % chunks.size();
            chunkEnd = std::min(size, at + chunks[next]);
            continue;
        }
        out.push_back(record(limits, p, r, at));
        p.reset();
        check(!p.started(), "reset left the parser started");
        if (r == Result::bad) break;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    catalog();
    return 0;
}

// Input: [flags][n][n chunk sizes][stream]. Flag bit 0 selects small limits,
// which makes every length check reachable with short inputs.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size < 2) return 0;
    const std::uint8_t flags = bytes[0];
    const std::size_t nChunks = 1 + bytes[1] % 8;
    if (size < 2 + nChunks) return 0;
    std::vector<std::size_t> chunks;
    for (std::size_t i = 0; i < nChunks; ++i) chunks.push_back(1 + bytes[2 + i] % 64);
    const char* data = reinterpret_cast<const char*>(bytes) + 2 + nChunks;
    const std::size_t n = size - 2 - nChunks;

    ksd::ParserLimits limits;
    if (flags & 1) {
        limits.maxNameLength = 16;
        limits.maxString = 48;
        limits.maxRaw = 64;
    }
    const std::vector<Outcome> whole = parseWhole(limits, data, n);
    RequestParser p(catalog().registry, limits);
    const std::vector<Outcome> split = parseSplit(limits, p, chunks, data, n);
    if (whole != split) {
        dump("whole", whole);
        dump("chunked", split);
        fault("whole and chunked parses differ");
    }

    // Whatever came before, a reset parser takes a good request whole.
    p.reset();
    std::string probe;
    namespace Codec = OrvoNet::Codec;
    Codec::putShort(probe, OrvoNet::Protocol::kProtocolVersion);
    Codec::putShort(probe, OrvoNet::Protocol::kMagic);
    Codec::putString(probe, "Arbiter");  // names within the small limits too
    Codec::putString(probe, "TRVX_RA_LOCK");
    Codec::putString(probe, "printer");
    Codec::putLong(probe, -7);
    std::size_t consumed = 0;
    check(p.parse(probe.data(), probe.size(), consumed) == Result::good && consumed == probe.size(),
          "a reset parser refused a good request");
    check(p.service() == "Arbiter" && p.request() == "TRVX_RA_LOCK" && p.fields().size() == 2 &&
              p.fields()[0].text == "printer" && p.fields()[1].integer == -7,
          "a reset parser kept something of the previous request");
    return 0;
}
