// Stand-ins for what a service talks to, shared by the service unit tests: a
// Responder that records its answer, an EventPublisher that records events,
// and a ProcessMonitor that records what it watches.
#pragma once
#include <map>
#include <optional>
#include <tuple>

#include "OrvoCodec.h"
#include "services/arbiter/process_monitor.h"
#include "services/service.h"

namespace ksdtest {

class FakeResponder final : public ksd::Responder {
public:
    void reply(std::string fields) override {
        if (++answers == 1 && open) replied = std::move(fields);
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
    bool open = true;
    int answers = 0;
    std::optional<std::string> replied;
    std::optional<int> failCode;
    std::function<void()> closeHandler;
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

// Records which processes are watched; none ever ends.
class FakeMonitor final : public ksd::ProcessMonitor {
public:
    struct State {
        std::map<pid_t, std::function<void()>> watched;
    };
    explicit FakeMonitor(std::shared_ptr<State> state) : state_(std::move(state)) {}
    WatchResult watch(pid_t pid, std::function<void()> onExit) override {
        state_->watched[pid] = std::move(onExit);
        return WatchResult::Watching;
    }
    void unwatch(pid_t pid) override { state_->watched.erase(pid); }

    std::shared_ptr<State> state_;
};

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
