#ifndef KSD_SERVICES_NOTIFIER_NOTIFIER_SERVICE_H
#define KSD_SERVICES_NOTIFIER_NOTIFIER_SERVICE_H

// The notification network ("Notifier"): subscriptions by event name, and
// asynchronous delivery, in publication order per callback address, over one
// push connection per address. Also the daemon's own event publisher.

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "cluster/cluster_link.h"
#include "services/notifier/notifier_limits.h"
#include "services/notifier/push_channel.h"
#include "services/notifier/reach_check.h"
#include "services/notifier/subscription_store.h"
#include "services/notifier/subscription_table.h"
#include "services/service.h"

namespace ksd {

class NotifierService final : public Service, public EventPublisher, private PushChannelOwner {
public:
    explicit NotifierService(asio::io_context& io, NotifierLimits limits = {});
    ~NotifierService() override;

    std::string_view name() const override { return "Notifier"; }
    const FieldPlan* plan(std::string_view request) const override;
    void handle(Request& request) override;
    std::vector<StatusItem> status() const override;
    std::string query(std::string_view what) const override;
    // A user sees its own subscriptions, root all, a TCP client none.
    std::string queryFor(std::string_view what, const PeerInfo& asker) const override;

    void publishEvent(EventFamily family, const std::string& subject, std::int32_t code,
                      EventAudience audience) override;

    // Queues a notification for every subscriber of `event`; returns how many took it.
    std::size_t publish(std::string_view sender, std::string_view event, std::string_view text,
                        std::string_view payload);
    // Closes every push connection; later publications go nowhere.
    void shutdown();
    // Takes back the stored subscriptions and stores every later change.
    void restoreFrom(std::unique_ptr<SubscriptionStore> store);
    // From now on publications also reach the other nodes of the cluster,
    // and theirs the subscribers here. `link` outlives this service.
    void joinCluster(ClusterLink& link);

private:
    std::string listSubscriptions(std::string_view what, const PeerInfo* asker) const;
    // Runs a store write; a failure is logged and memory stays authoritative.
    template <typename Write>
    void persist(Write write);
    void handleRegister(Request& request);
    // Adds a subscription whose address the registrant was found to reach.
    void commitRegister(Responder& responder, const SubscriptionKey& key, std::string event);
    void refuseOverQuota(Responder& responder);
    void refuseUnreachable(Responder& responder, const SubscriptionKey& key, const std::string& why);
    void scheduleSweep();
    // Checks a batch of pipe addresses nobody pushes to, from `from` on.
    void sweep(std::string from);
    void handleUnregister(Request& request);
    void handleNotify(Request& request);
    // Queues one notification for the subscribers of `event` that `audience` admits.
    std::size_t deliver(std::string_view sender, std::string_view event, std::string_view text,
                        std::string_view payload, const EventAudience& audience);
    // Asks the other nodes for `event` while anyone here subscribes to it, and no longer after.
    void noteInterest(const std::string& event);
    // The same for every event asked for, after subscriptions went in bulk.
    void pruneInterest();
    void remoteArrived(const RemoteNotification& n);
    PushChannel* channelFor(const std::string& address);
    void flushTouched();
    // The channels deliver() queued to since the last flushTouched().
    std::vector<std::shared_ptr<PushChannel>> touched_, flushing_;

    void channelFailed(PushChannel& channel, const std::string& reason) override;
    void channelIdle(PushChannel& channel) override;
    void subscriberRefused(PushChannel& channel, std::int32_t callbackId, uid_t owner) override;

    asio::io_context& io_;
    NotifierLimits limits_;
    FieldPlan registerPlan_;
    FieldPlan unregisterPlan_;
    FieldPlan notifyPlan_;
    SubscriptionTable table_;
    std::unique_ptr<SubscriptionStore> store_;
    std::unordered_map<std::string, std::shared_ptr<PushChannel>> channels_;
    std::shared_ptr<PushBudget> pushBudget_ = std::make_shared<PushBudget>(limits_.maxQueuedBytesPerUser);
    ReachCheck reach_;
    asio::steady_timer sweepTimer_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();
    std::uint64_t queueDrops_ = 0;
    std::uint64_t published_ = 0;
    bool shutDown_ = false;
    ClusterLink* cluster_ = nullptr;
    std::unordered_set<std::string> remoteInterest_;
};

}  // namespace ksd

#endif
