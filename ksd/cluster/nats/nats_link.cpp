// The cluster link over NATS: core subjects for notifications and for the
// nodes' heartbeats. libnats runs its own threads; its callbacks only queue
// into the Inbox, everything else happens on the event loop.

#include <nats/nats.h>
#include <unistd.h>

#include <algorithm>
#include <asio/steady_timer.hpp>
#include <map>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "OrvoLogging.h"
#include "cluster/cluster_link.h"
#include "cluster/cluster_wire.h"
#include "cluster/nats/bucket_watch.h"
#include "cluster/nats/bucket_worker.h"
#include "cluster/nats/inbox.h"

namespace ksd {

namespace {

using cluster::Arrival;
using cluster::Inbox;
using Clock = std::chrono::steady_clock;

// Arrivals waiting for the loop; a loop that stalls this long loses the rest.
constexpr std::size_t kInboxBound = 65536;
// Bytes libnats may keep while it reconnects: next to none, so that a write
// made while the connection is down fails at once instead of going out
// later, after its caller was told it failed.
constexpr int kReconnectBufferBytes = 64;

void check(natsStatus s, const char* what) {
    if (s != NATS_OK) throw std::runtime_error(std::string("cluster: ") + what + ": " + natsStatus_GetText(s));
}

// One subscription's closure: keeps the inbox alive until libnats is done
// with the subscription (its completion callback frees it).
struct SubscriptionClosure {
    std::shared_ptr<Inbox> inbox;
    ClusterTopic topic;
    bool heartbeat = false;
};

void onMessage(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
    auto* c = static_cast<SubscriptionClosure*>(closure);
    Arrival a;
    a.heartbeat = c->heartbeat;
    a.topic = c->topic;
    a.subject = natsMsg_GetSubject(msg);
    a.body.assign(natsMsg_GetData(msg), static_cast<std::size_t>(natsMsg_GetDataLength(msg)));
    natsMsg_Destroy(msg);
    c->inbox->push(std::move(a));
}

void onSubscriptionDone(void* closure) { delete static_cast<SubscriptionClosure*>(closure); }

// With retries on, a connect that fails at first goes on in the background;
// the loop sees the connection come up through its status.
void onConnected(natsConnection*, void*) {}

std::string hostName() {
    char name[256] = "";
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
    return name;
}

class NatsLink final : public ClusterLink {
public:
    NatsLink(asio::io_context& io, const ClusterOptions& options)
        : io_(io),
          options_(options),
          node_(options.node.empty() ? hostName() : options.node),
          inbox_(std::make_shared<Inbox>(io, kInboxBound)),
          beat_(io) {
        if (!cluster::isPlainToken(options_.name))
            throw std::runtime_error("cluster: name '" + options_.name + "' must be letters, digits, '-' or '_' only");
        static std::once_flag once;
        // One delivery thread for every subscription: messages reach the
        // inbox in the order they left the server, across event names too.
        std::call_once(once, [] { nats_SetMessageDeliveryPoolSize(1); });
        connect();
        inbox_->setSink([this](Arrival& a) { arrived(a); });
        subscribe(cluster::allNodesSubject(options_.name), ClusterTopic{}, true);
        beat();
    }

    ~NatsLink() override {
        beat_.cancel();
        inbox_->close();
        workers_.clear();
        watches_.clear();
        for (auto& [subject, sub] : subs_) natsSubscription_Destroy(sub);
        subs_.clear();
        natsConnection_Close(nc_);
        natsConnection_Destroy(nc_);
    }

    const std::string& node() const override { return node_; }
    std::chrono::milliseconds lease() const override { return options_.lease; }
    void setReceiver(Receiver receiver) override { receiver_ = std::move(receiver); }

    void want(const ClusterTopic& topic) override {
        const std::string subject = cluster::subjectFor(options_.name, topic);
        if (subs_.count(subject) == 0) subscribe(subject, topic, false);
    }

    void unwant(const ClusterTopic& topic) override {
        auto it = subs_.find(cluster::subjectFor(options_.name, topic));
        if (it == subs_.end()) return;
        natsSubscription_Unsubscribe(it->second);
        natsSubscription_Destroy(it->second);
        subs_.erase(it);
    }

    void forward(const ClusterTopic& topic, std::string_view sender, std::string_view text, std::string_view payload,
                 const ClusterAudience& audience) override {
        if (natsConnection_Status(nc_) != NATS_CONN_STATUS_CONNECTED) {
            ++dropped_;
            return;
        }
        const std::string subject = cluster::subjectFor(options_.name, topic);
        const std::string body = cluster::encodeNotification(
            {node_, std::string(sender), std::string(text), std::string(payload), audience});
        if (natsConnection_Publish(nc_, subject.c_str(), body.data(), static_cast<int>(body.size())) == NATS_OK)
            ++forwarded_;
        else
            ++dropped_;
    }

    ClusterState state() const override {
        ClusterState s;
        s.connected = natsConnection_Status(nc_) == NATS_CONN_STATUS_CONNECTED;
        char url[512] = "";
        if (s.connected && natsConnection_GetConnectedUrl(nc_, url, sizeof url) == NATS_OK) s.server = url;
        const auto now = Clock::now();
        s.nodes = 1 + std::count_if(seen_.begin(), seen_.end(),
                                    [&](const auto& entry) { return now - entry.second < options_.lease; });
        s.forwarded = forwarded_;
        s.received = received_;
        s.dropped = dropped_ + inbox_->overflow();
        return s;
    }

    // A worker per bucket: one service's slow round trips never hold up another's.
    void runOnBucket(const std::string& bucket, BucketWork work) override {
        auto& worker = workers_[bucket];
        if (!worker) worker = std::make_unique<cluster::BucketWorker>(io_, nc_, options_.name, options_.writeTimeout);
        worker->run(bucket, std::move(work));
    }

    void watchBucket(const std::string& bucket, std::function<void(ClusterEntry&)> onEntry) override {
        watches_[bucket] = std::make_unique<cluster::BucketWatch>(io_, nc_, options_.name + "-" + bucket,
                                                                  watchSilence(), std::move(onEntry));
    }

private:
    // Every node writes to the locks' bucket a fifth of the lease apart: a
    // watch silent for half of it has lost its consumer.
    std::chrono::milliseconds watchSilence() const {
        return std::max(options_.lease / 2, std::chrono::milliseconds(200));
    }

    void connect() {
        natsOptions* opts = nullptr;
        check(natsOptions_Create(&opts), "options");
        std::unique_ptr<natsOptions, void (*)(natsOptions*)> guard(opts, natsOptions_Destroy);
        std::vector<const char*> servers;
        for (const std::string& s : options_.servers) servers.push_back(s.c_str());
        check(natsOptions_SetServers(opts, servers.data(), static_cast<int>(servers.size())), "servers");
        const std::string name = "ksd " + node_;
        natsOptions_SetName(opts, name.c_str());
        // A node delivers its own publications itself, at once.
        natsOptions_SetNoEcho(opts, true);
        // Out at once rather than when libnats's flusher thread next runs: a
        // replicated write or a forwarded publication waits on nothing else.
        natsOptions_SetSendAsap(opts, true);
        // Only the servers the operator named: a node cut off from them is cut
        // off, not quietly moved to a server it learnt of (and told nobody).
        natsOptions_SetIgnoreDiscoveredServers(opts, true);
        natsOptions_UseGlobalMessageDelivery(opts, true);
        natsOptions_SetMaxReconnect(opts, -1);
        natsOptions_SetReconnectWait(opts, 200);
        natsOptions_SetReconnectBufSize(opts, kReconnectBufferBytes);
        natsOptions_SetTimeout(opts, 2000);
        // A server that went silent is left well within the lease.
        const auto ping = std::max<std::int64_t>(options_.lease.count() / 4, 100);
        natsOptions_SetPingInterval(opts, ping);
        natsOptions_SetMaxPingsOut(opts, 2);
        check(natsOptions_SetRetryOnFailedConnect(opts, true, onConnected, nullptr), "retry");
        if (!options_.user.empty())
            check(natsOptions_SetUserInfo(opts, options_.user.c_str(), options_.password.c_str()), "user");
        if (!options_.credsFile.empty())
            check(natsOptions_SetUserCredentialsFromFiles(opts, options_.credsFile.c_str(), nullptr), "credentials");
        if (!options_.caFile.empty()) {
            check(natsOptions_SetSecure(opts, true), "TLS");
            check(natsOptions_LoadCATrustedCertificates(opts, options_.caFile.c_str()), "CA file");
        }
        const natsStatus s = natsConnection_Connect(&nc_, opts);
        if (s != NATS_OK && s != NATS_NOT_YET_CONNECTED) check(s, "connect");
        ORVO_LOG(s == NATS_OK ? 5 : 4, "ksd: cluster '"
                                           << options_.name << "': node '" << node_ << "' "
                                           << (s == NATS_OK ? "connected" : "connecting in the background"));
    }

    void subscribe(const std::string& subject, const ClusterTopic& topic, bool heartbeat) {
        auto* closure = new SubscriptionClosure{inbox_, topic, heartbeat};
        natsSubscription* sub = nullptr;
        const natsStatus s = natsConnection_Subscribe(&sub, nc_, subject.c_str(), onMessage, closure);
        if (s != NATS_OK) {
            delete closure;
            ORVO_LOG(1, "ksd: cluster: cannot subscribe to " << subject << ": " << natsStatus_GetText(s));
            return;
        }
        natsSubscription_SetOnCompleteCB(sub, onSubscriptionDone, closure);
        subs_.emplace(subject, sub);
    }

    void arrived(Arrival& a) {
        const auto dot = a.subject.rfind('.');
        if (a.heartbeat) {
            if (auto node = cluster::fromHexToken(std::string_view(a.subject).substr(dot + 1)); node && *node != node_)
                seen_[*node] = Clock::now();
            return;
        }
        auto event = cluster::eventOfSubject(a.subject);
        auto body = cluster::decodeNotification(a.body);
        if (!event || !body) {
            ++dropped_;
            ORVO_LOG(4, "ksd: cluster: malformed message on " << a.subject);
            return;
        }
        ++received_;
        if (!receiver_) return;
        receiver_(RemoteNotification{a.topic, std::move(*event), std::move(body->node), std::move(body->sender),
                                     std::move(body->text), std::move(body->payload), body->audience});
    }

    void beat() {
        if (natsConnection_Status(nc_) == NATS_CONN_STATUS_CONNECTED) {
            const std::string subject = cluster::nodeSubject(options_.name, node_);
            natsConnection_Publish(nc_, subject.c_str(), nullptr, 0);
        }
        const auto now = Clock::now();
        std::erase_if(seen_, [&](const auto& entry) { return now - entry.second >= options_.lease; });
        beat_.expires_after(std::max(options_.lease / 4, std::chrono::milliseconds(50)));
        beat_.async_wait([this](const std::error_code& ec) {
            if (!ec) beat();
        });
    }

    asio::io_context& io_;
    ClusterOptions options_;
    std::string node_;
    std::shared_ptr<Inbox> inbox_;
    natsConnection* nc_ = nullptr;
    std::map<std::string, natsSubscription*> subs_;
    Receiver receiver_;
    asio::steady_timer beat_;
    std::unordered_map<std::string, Clock::time_point> seen_;
    std::map<std::string, std::unique_ptr<cluster::BucketWorker>> workers_;
    std::map<std::string, std::unique_ptr<cluster::BucketWatch>> watches_;
    std::int64_t forwarded_ = 0, received_ = 0, dropped_ = 0;
};

}  // namespace

std::unique_ptr<ClusterLink> connectCluster(asio::io_context& io, const ClusterOptions& options) {
    return std::make_unique<NatsLink>(io, options);
}

}  // namespace ksd
