// Stand-ins for what a service talks to, shared by the service unit tests: a
// Responder that records its answer, an EventPublisher that records events,
// and a ProcessMonitor that records what it watches.
#pragma once
#include <map>
#include <optional>
#include <thread>
#include <tuple>

#include "OrvoCodec.h"
#include "services/arbiter/process_monitor.h"
#include "services/service.h"

namespace ksdtest {

// What a test reads of an answer: its value, or kRefused + the code of an error value.
inline constexpr std::int64_t kRefused = 1000;

class FakeResponder final : public ksd::Responder {
public:
    void reply(std::string fields) override {
        if (++answers == 1 && open) replied = std::move(fields);
        thread = std::this_thread::get_id();
    }
    void fail(int code, std::string_view) override {
        if (++answers == 1 && open) failCode = code;
    }
    bool isOpen() const override { return open; }
    void onClose(std::function<void()> handler) override { closeHandler = std::move(handler); }
    // The peer hangs up: the close handler runs unless an answer went out.
    void close() {
        open = false;
        if (answers == 0 && closeHandler) std::exchange(closeHandler, nullptr)();
    }
    bool answered() const { return replied.has_value() || failCode.has_value(); }
    // The reply's one long or int, decoded; nullopt when there is none or it is not one long.
    std::optional<std::int64_t> value() const {
        OrvoNet::Codec::Value v;
        std::size_t used = 0;
        int error = 0;
        if (!replied ||
            OrvoNet::Codec::decode(replied->data(), replied->size(), v, used, error) != OrvoNet::Codec::Result::good ||
            (v.tag != OrvoNet::Codec::kTagLong && v.tag != OrvoNet::Codec::kTagInt) || used != replied->size())
            return std::nullopt;
        return v.integer;
    }
    std::int64_t outcome() const { return failCode ? kRefused + *failCode : value().value_or(-9999); }
    bool open = true;
    int answers = 0;
    std::optional<std::string> replied;
    std::optional<int> failCode;
    std::function<void()> closeHandler;
    std::thread::id thread;  // the one the reply came on
};

using PublishedEvent = std::tuple<std::string, std::string, std::int32_t>;  // event, text, code

struct RecordingPublisher final : ksd::EventPublisher {
    void publishEvent(ksd::EventFamily family, const std::string& subject, std::int32_t code,
                      ksd::EventAudience audience) override {
        events.emplace_back(ksd::daemonEventName(family, subject), subject, code);
        audiences.push_back(audience);
    }
    std::vector<PublishedEvent> events;
    std::vector<ksd::EventAudience> audiences;  // one per event
};

// Records which processes are watched (into a map the test keeps); none ever ends.
class FakeMonitor final : public ksd::ProcessMonitor {
public:
    using Watched = std::map<pid_t, std::function<void()>>;
    explicit FakeMonitor(std::shared_ptr<Watched> watched) : watched_(std::move(watched)) {}
    WatchResult watch(pid_t pid, std::function<void()> onExit) override {
        (*watched_)[pid] = std::move(onExit);
        return WatchResult::Watching;
    }
    void unwatch(pid_t pid) override { watched_->erase(pid); }

    std::shared_ptr<Watched> watched_;
};

using Fields = std::vector<ksd::Value>;
inline ksd::Value str(std::string s) { return {'s', 0, std::move(s)}; }
inline ksd::Value lng(std::int64_t v) { return {'l', v, {}}; }
inline ksd::Value num(std::int32_t v) { return {'i', v, {}}; }

// Item `name` of a service's status, -1 when it has none.
inline std::int64_t statusOf(const ksd::Service& service, std::string_view name) {
    for (const auto& item : service.status())
        if (item.name == name) return item.value;
    return -1;
}

// Hands `service` one request from `peer`; the responder returned holds the answer.
inline std::shared_ptr<FakeResponder> handle(ksd::Service& service, std::string request, Fields fields,
                                             const ksd::PeerInfo& peer) {
    auto responder = std::make_shared<FakeResponder>();
    ksd::Request r{std::string(service.name()), std::move(request), std::move(fields), peer, responder};
    service.handle(r);
    return responder;
}

inline ksd::PeerInfo unixPeer(pid_t pid, uid_t uid) {
    ksd::PeerInfo p;
    p.isUnix = true, p.pid = pid, p.uid = p.gid = uid;
    return p;
}
// A TCP client whose owner the kernel did not tell, or did.
inline ksd::PeerInfo tcpPeer() { return ksd::PeerInfo{}; }
inline ksd::PeerInfo tcpPeerOf(uid_t uid) {
    ksd::PeerInfo p;
    p.tcpOwnerKnown = true, p.uid = uid;
    return p;
}

}  // namespace ksdtest
