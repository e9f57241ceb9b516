// Helpers of the request-layer and Notifier tests: a service for exercising
// the request layer, a daemon serving it, and raw requests and their replies.
#ifndef KSD_TESTS_CORE_TEST_UTIL_H
#define KSD_TESTS_CORE_TEST_UTIL_H

#include <atomic>
#include <cerrno>
#include <memory>
#include <stdexcept>

#include "daemon_thread.h"
#include "fake_daemon.h"
#include "wait_until.h"

namespace ksdtest {

namespace Codec = OrvoNet::Codec;
using ksd::FieldKind;

// Service "Test". ECHO s and BLOB l raw answer their last field as a string;
// WHOAMI answers "uid pid isUnix"; HOLD is never answered; ALL h i l b s is
// only parsed; BOOM (and ALL) throw.
class TestService final : public ksd::Service {
public:
    std::string_view name() const override { return "Test"; }
    const ksd::FieldPlan* plan(std::string_view r) const override {
        if (r == "ALL") return &all_;
        if (r == "ECHO") return &echo_;
        if (r == "BLOB") return &blob_;
        return r == "WHOAMI" || r == "HOLD" || r == "BOOM" ? &none_ : nullptr;
    }
    void handle(ksd::Request& request) override {
        const auto& p = request.peer;
        std::string out;
        if (request.name == "HOLD") {
            held.push_back(request.responder);
            return request.responder->onClose([this] { ++closedWhileHeld; });
        }
        if (request.name == "ALL" || request.name == "BOOM") throw std::runtime_error("boom");
        Codec::putString(out, request.name == "WHOAMI"
                                  ? std::to_string(p.uid) + " " + std::to_string(p.pid) + " " + std::to_string(p.isUnix)
                                  : request.fields.back().text);
        request.responder->reply(std::move(out));
    }

    std::vector<std::shared_ptr<ksd::Responder>> held;  // the loop's
    std::atomic<int> closedWhileHeld{0};

private:
    ksd::FieldPlan all_ =
        ksd::fixedPlan({FieldKind::Short, FieldKind::Int, FieldKind::Long, FieldKind::Bool, FieldKind::String});
    ksd::FieldPlan echo_ = ksd::fixedPlan({FieldKind::String}), none_ = ksd::fixedPlan({});
    // A length, then a raw run of that length; a negative length is refused.
    ksd::FieldPlan blob_ = [](const std::vector<ksd::Value>& f) -> ksd::FieldSpec {
        if (f.size() != 1) return {f.empty() ? FieldKind::Long : FieldKind::Done, 0, 0};
        if (f[0].integer < 0) return {FieldKind::Invalid, 0, EMSGSIZE};
        return {FieldKind::Raw, static_cast<std::uint64_t>(f[0].integer), 0};
    };
};

// A daemon on a thread of its own, on a unique pipe and a loopback TCP port,
// serving TestService beside its own services; `tune` adjusts its options.
class TestServer {
    kstest::ScopedTempDir state_{"kstest-core-state"};
    std::unique_ptr<TestService> owned_ = std::make_unique<TestService>();

public:
    ksd::DaemonThread thread;  // thread.onLoop(fn) runs fn on the daemon's loop
    TestService& service = *owned_;

    explicit TestServer(const std::function<void(ksd::DaemonOptions&)>& tune = nullptr)
        : thread([&] {
              ksd::DaemonOptions o{kstest::uniqueName("kstest-core"), 0, state_.path(), {}, {}, {}};
              if (tune) tune(o);
              return o;
          }()) {
        thread.onLoop([this] { return (daemon().registry().add(std::move(owned_)), 0); });
    }
    ksd::Daemon& daemon() { return thread.daemon(); }
    std::string address() { return "pipe:" + daemon().options().pipe; }
    std::string tcpAddress() { return "socket:127.0.0.1:" + std::to_string(daemon().tcpPort()); }
};

using kstest::requestWire;
inline std::string echoRequest(std::string_view text) { return requestWire("Test", "ECHO").addString(text).bytes(); }
inline std::string notifyRequest(std::string_view event, std::string_view text, std::string_view payload) {
    kstest::Wire w = requestWire("Notifier", "TRVX_NN_NOTIFY");
    w.addString("udp:127.0.0.1:0").addString(event).addString(text);
    return w.addLong(static_cast<std::int64_t>(payload.size())).addRaw(payload).bytes();
}

// One reply: its first value, or the error value that replaced it.
struct Outcome {
    bool ok = false;  // a reply value and the trailer (short 0, short 7777) came
    std::int64_t value = 0;
    std::string text;  // a string reply, or the error message
    int error = 0;     // the error value's code
};

inline Outcome readReply(kstest::WireClient& c) {
    Outcome o;
    Codec::Value v, a, b;
    if (!c.readValue(v)) return o;
    o.text = v.text;
    if (v.tag == Codec::kTagError) return (o.error = static_cast<int>(v.integer), o);
    o.value = v.integer;
    o.ok = c.readValue(a) && c.readValue(b) && a.tag == 'h' && a.integer == 0 && b.tag == 'h' && b.integer == 7777;
    return o;
}
inline Outcome roundTrip(kstest::WireClient& c, const std::string& request) {
    return c.send(request) ? readReply(c) : Outcome{};
}
// One request on a connection of its own.
inline Outcome call(const std::string& address, const std::string& request) {
    kstest::WireClient c;
    return c.connect(address) ? roundTrip(c, request) : Outcome{};
}
inline bool echoWorks(const std::string& address) {
    const Outcome o = call(address, echoRequest("ping"));
    return o.ok && o.text == "ping";
}

using kstest::waitUntil;

}  // namespace ksdtest

#endif
