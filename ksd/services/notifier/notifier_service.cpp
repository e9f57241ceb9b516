#include "services/notifier/notifier_service.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <asio/post.hpp>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <utility>

#include "OrvoCodec.h"
#include "OrvoLogging.h"
#include "json/json_text.h"
#include "net/tcp_listeners.h"
#include "services/notifier/callback_address.h"
#include "services/notifier/push_frame.h"
#include "services/list_page.h"
#include "store/write_or_log.h"

namespace ksd {

namespace Codec = OrvoNet::Codec;

namespace {

constexpr std::string_view kRegister = "TRVX_NN_REGISTER";
constexpr std::string_view kUnregister = "TRVX_NN_UNREGISTER";
constexpr std::string_view kNotify = "TRVX_NN_NOTIFY";
constexpr std::string_view kDaemonSender = "ksd";

// Unix connects complete at once: the answer (0, EAGAIN for a full backlog,
// ECONNREFUSED, ENOENT) never waits for the listener.
int probePipe(const GenericEndpoint& endpoint) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    const int result = ::connect(fd, endpoint.data(), static_cast<socklen_t>(endpoint.size())) == 0 ? 0 : errno;
    ::close(fd);
    return result;
}

// Event names only the daemon publishes (clients may subscribe to them). The
// client library reserves these by their first 11 characters.
bool isDaemonEventName(std::string_view event) {
    for (std::string_view prefix : {"OrvoRAEvent", "OrvoJSEvent", "OrvoTSEvent"})
        if (event.substr(0, prefix.size()) == prefix) return true;
    return false;
}

// Jobs are the cluster's, so are their events; tasks stay on their node.
constexpr const char* kJobFamily = "job";

// What a subscription to `event` asks of the other nodes, if anything.
std::optional<ClusterTopic> clusterTopicOf(const std::string& event) {
    if (event == aggregateEventName(EventFamily::Job)) return ClusterTopic{kJobFamily, {}};
    if (event.starts_with("OrvoJSEvent")) return ClusterTopic{kJobFamily, event};
    if (isDaemonEventName(event)) return std::nullopt;
    return ClusterTopic{{}, event};
}

}  // namespace

NotifierService::NotifierService(asio::io_context& io, NotifierLimits limits)
    : io_(io),
      limits_(limits),
      registerPlan_(fixedPlan({FieldKind::String, FieldKind::String, FieldKind::Int})),
      unregisterPlan_(fixedPlan({FieldKind::String, FieldKind::Int})),
      table_(limits_.maxSubscriptionsPerUser),
      reach_(io),
      sweepTimer_(io) {
    // sender, event, text, long n, then n raw bytes: the whole push payload
    // must stay within what a push frame and one subscriber's queue can hold.
    notifyPlan_ = [this](const std::vector<Value>& f) -> FieldSpec {
        if (f.size() < 3) return {FieldKind::String, 0, 0};
        if (f.size() == 3) return {FieldKind::Long, 0, 0};
        if (f.size() > 4) return {FieldKind::Done, 0, 0};
        const std::uint64_t overhead =
            3 * Codec::kStringHeaderSize + f[0].text.size() + f[1].text.size() + f[2].text.size() + 9;
        const std::uint64_t cap = maxFramePayload(limits_);
        const std::int64_t n = f[3].integer;
        if (n < 0 || overhead > cap || static_cast<std::uint64_t>(n) > cap - overhead)
            return {FieldKind::Invalid, 0, EMSGSIZE};
        return {FieldKind::Raw, static_cast<std::uint64_t>(n), 0};
    };
    scheduleSweep();
}

NotifierService::~NotifierService() { shutdown(); }

const FieldPlan* NotifierService::plan(std::string_view request) const {
    if (request == kRegister) return &registerPlan_;
    if (request == kUnregister) return &unregisterPlan_;
    if (request == kNotify) return &notifyPlan_;
    return nullptr;
}

void NotifierService::handle(Request& request) {
    if (request.name == kRegister)
        handleRegister(request);
    else if (request.name == kUnregister)
        handleUnregister(request);
    else
        handleNotify(request);
}

void NotifierService::handleRegister(Request& request) {
    std::string& event = request.fields[0].text;
    const std::string& address = request.fields[1].text;
    const auto callbackId = static_cast<std::int32_t>(request.fields[2].integer);
    const uid_t uid = request.peer.uid;
    if (event.size() > limits_.maxEventNameLength) {
        request.responder->fail(EMSGSIZE, "event name longer than " + std::to_string(limits_.maxEventNameLength));
        return;
    }
    CallbackAddress parsed;
    switch (parseCallbackAddress(address, parsed)) {
        case AddressCheck::Malformed:
            request.responder->reply(intReply(-EINVAL));
            return;
        case AddressCheck::NotLocal:
            request.responder->fail(EACCES, "callback address '" + address + "' is not on this machine");
            return;
        case AddressCheck::Ok:
            break;
    }
    if (parsed.kind == CallbackAddress::Kind::Pipe && !request.peer.isUnix) {
        // Nothing could vouch that the listening process is this client's.
        request.responder->fail(EACCES, "a TCP client may only register a socket: callback address");
        return;
    }
    if (!isIdentified(request.peer)) {
        // Pushes for nobody could land in anybody's sink.
        request.responder->fail(EACCES, "a TCP client whose owner is unknown may not subscribe");
        return;
    }
    // Each user's keys are its own: nobody's registration can block or replace another's.
    SubscriptionKey key{address, callbackId, uid};
    const bool root = isRoot(request.peer);
    if (!root && table_.find(key) == nullptr && table_.countForOwner(uid) >= limits_.maxSubscriptionsPerUser)
        return refuseOverQuota(*request.responder);
    if (root) return commitRegister(*request.responder, key, std::move(event));
    if (parsed.kind == CallbackAddress::Kind::Tcp) {
        // The daemon must not push, for this user, to a port another user listens on.
        const auto owners = tcpListenerOwners(parsed.host, parsed.port);
        if (!owners) return refuseUnreachable(*request.responder, key, "the kernel did not say who listens");
        if (owners->empty()) return refuseUnreachable(*request.responder, key, "nobody listens");
        for (uid_t owner : *owners)
            if (owner != uid)
                return refuseUnreachable(*request.responder, key,
                                         "uid " + std::to_string(static_cast<long>(owner)) + " listens there");
        return commitRegister(*request.responder, key, std::move(event));
    }
    if (isAbstractPipeName(parsed.pipeName)) {
        // No file system rights guard an abstract name; its listener's uid is checked at connect.
        return commitRegister(*request.responder, key, std::move(event));
    }
    // A socket path is checked with the registrant's own rights, off the loop.
    reach_.run(parsed.pipeName, identityOf(request.peer),
               [this, responder = request.responder, key, event = std::move(event)](int error) mutable {
                   if (error == 0 || error == ECONNREFUSED)
                       commitRegister(*responder, key, std::move(event));
                   else
                       refuseUnreachable(*responder, key, std::strerror(error));
               });
}

void NotifierService::commitRegister(Responder& responder, const SubscriptionKey& key, std::string event) {
    const Subscription* old = table_.find(key);
    const std::string oldEvent = old != nullptr ? old->event : std::string();
    // Checked again: the quota may have filled while the address was being checked.
    if (table_.add(key, event) == SubscriptionTable::AddResult::OverLimit) return refuseOverQuota(responder);
    persist([&] { store_->put(key, event); });
    noteInterest(event);
    if (old != nullptr && oldEvent != event) noteInterest(oldEvent);
    ORVO_LOG(9, "ksd: notifier: subscribed " << key.address << " id " << key.callbackId << " of uid "
                                             << static_cast<long>(key.owner) << " to '" << event << "'");
    responder.reply(intReply(0));
}

void NotifierService::refuseOverQuota(Responder& responder) {
    responder.fail(EDQUOT, "too many subscriptions for this user (limit " +
                               std::to_string(limits_.maxSubscriptionsPerUser) + ")");
}

void NotifierService::refuseUnreachable(Responder& responder, const SubscriptionKey& key, const std::string& why) {
    ORVO_LOG(4, "ksd: notifier: uid " << static_cast<long>(static_cast<std::int32_t>(key.owner)) << " may not register "
                                      << key.address << " (" << why << ")");
    responder.reply(intReply(-EACCES));
}

void NotifierService::handleUnregister(Request& request) {
    // A caller, root too, removes only its own subscription.
    const SubscriptionKey key{request.fields[0].text, static_cast<std::int32_t>(request.fields[1].integer),
                              request.peer.uid};
    const Subscription* sub = table_.find(key);
    const std::string event = sub != nullptr ? sub->event : std::string();
    if (!table_.remove(key)) {
        request.responder->reply(intReply(-ENOENT));
        return;
    }
    persist([&] { store_->erase(key); });
    noteInterest(event);
    ORVO_LOG(9, "ksd: notifier: unsubscribed " << key.address << " id " << key.callbackId << " of uid "
                                               << static_cast<long>(key.owner));
    request.responder->reply(intReply(0));
}

void NotifierService::handleNotify(Request& request) {
    const std::string& sender = request.fields[0].text;
    const std::string& event = request.fields[1].text;
    const std::string& text = request.fields[2].text;
    const std::string& payload = request.fields[4].text;
    if (isDaemonEventName(event)) {
        request.responder->fail(EACCES, "event '" + event + "' is published by the daemon only");
        return;
    }
    const std::size_t queued = publish(sender, event, text, payload);
    request.responder->reply(longReply(static_cast<std::int64_t>(queued)));
    flushTouched();
    if (cluster_ != nullptr && !shutDown_) cluster_->forward(ClusterTopic{{}, event}, sender, text, payload);
}

std::size_t NotifierService::publish(std::string_view sender, std::string_view event, std::string_view text,
                                     std::string_view payload) {
    if (shutDown_) return 0;
    ++published_;
    return deliver(sender, event, text, payload, EventAudience::everyone());
}

std::size_t NotifierService::deliver(std::string_view sender, std::string_view event, std::string_view text,
                                     std::string_view payload, const EventAudience& audience) {
    std::shared_ptr<const std::string> encoded;
    std::size_t queued = 0;
    table_.forEachSubscriber(event, [&](const SubscriptionKey& key, const Subscription&) {
        if (!audience.admits(key.owner)) return;
        if (!encoded) encoded = std::make_shared<const std::string>(encodeNotification(sender, event, text, payload));
        PushChannel* channel = channelFor(key.address);
        if (channel != nullptr && channel->push(key.callbackId, key.owner, encoded)) {
            ++queued;
            if (touched_.empty() || touched_.back().get() != channel) touched_.push_back(channel->shared_from_this());
        } else {
            ++queueDrops_;
        }
    });
    return queued;
}

// The frames go out in this turn of the loop, after the reply: a push left for
// the next turn waited behind the publisher, whom the reply had just woken.
void NotifierService::flushTouched() {
    flushing_.swap(touched_);  // a flush that published again would not disturb this loop
    for (const auto& channel : flushing_) channel->flush();
    flushing_.clear();
}

void NotifierService::publishEvent(EventFamily family, const std::string& subject, std::int32_t code,
                                   EventAudience audience) {
    char bytes[sizeof code];
    std::memcpy(bytes, &code, sizeof code);  // native order, as the subscribers read it
    const std::string_view payload(bytes, sizeof bytes);
    publish(kDaemonSender, daemonEventName(family, subject), subject, payload);
    // The same event once more for the watchers of the whole family: one
    // lookup when there are none. Not counted again as a publication.
    const std::string& aggregate = aggregateEventName(family);
    if (!shutDown_ && table_.hasSubscribers(aggregate)) deliver(kDaemonSender, aggregate, subject, payload, audience);
    flushTouched();
    if (cluster_ != nullptr && !shutDown_ && family == EventFamily::Job)
        cluster_->forward(ClusterTopic{kJobFamily, daemonEventName(family, subject)}, kDaemonSender, subject, payload,
                          ClusterAudience{audience.all, static_cast<std::uint32_t>(audience.owner)});
}

void NotifierService::joinCluster(ClusterLink& link) {
    cluster_ = &link;
    link.setReceiver([this](const RemoteNotification& n) { remoteArrived(n); });
    // Restored subscriptions want the other nodes' publications as much as new ones.
    for (const auto& [key, sub] : table_.all()) noteInterest(sub.event);
}

void NotifierService::noteInterest(const std::string& event) {
    if (cluster_ == nullptr) return;
    const auto topic = clusterTopicOf(event);
    if (!topic) return;
    const bool wanted = table_.hasSubscribers(event);
    if (wanted == (remoteInterest_.count(event) != 0)) return;
    if (wanted) {
        remoteInterest_.insert(event);
        cluster_->want(*topic);
    } else {
        remoteInterest_.erase(event);
        cluster_->unwant(*topic);
    }
}

void NotifierService::pruneInterest() {
    std::vector<std::string> gone;
    for (const std::string& event : remoteInterest_)
        if (!table_.hasSubscribers(event)) gone.push_back(event);
    for (const std::string& event : gone) noteInterest(event);
}

void NotifierService::remoteArrived(const RemoteNotification& n) {
    if (shutDown_) return;
    if (n.topic.wholeFamily()) {
        const EventAudience audience{n.audience.everyone, static_cast<uid_t>(n.audience.owner)};
        deliver(n.sender, aggregateEventName(EventFamily::Job), n.text, n.payload, audience);
    } else {
        deliver(n.sender, n.event, n.text, n.payload, EventAudience::everyone());
    }
    flushTouched();
}

PushChannel* NotifierService::channelFor(const std::string& address) {
    auto it = channels_.find(address);
    if (it != channels_.end()) return it->second.get();
    CallbackAddress parsed;
    if (parseCallbackAddress(address, parsed) != AddressCheck::Ok) return nullptr;
    auto channel = std::make_shared<PushChannel>(io_, address, std::move(parsed), limits_, pushBudget_,
                                                 static_cast<PushChannelOwner&>(*this));
    return channels_.emplace(address, std::move(channel)).first->second.get();
}

void NotifierService::channelFailed(PushChannel& channel, const std::string& reason) {
    const std::string address = channel.address();
    const std::size_t dropped = table_.removeAddress(address);
    persist([&] { store_->eraseAddress(address); });
    pruneInterest();
    ORVO_LOG(4, "ksd: notifier: dropped " << static_cast<unsigned long>(dropped) << " subscriptions of " << address
                                          << " (" << reason << ")");
    channel.detach();
    channels_.erase(address);
}

void NotifierService::channelIdle(PushChannel& channel) {
    if (table_.countForAddress(channel.address()) != 0) return;
    const std::string address = channel.address();
    channel.close();
    channel.detach();
    channels_.erase(address);
}

void NotifierService::subscriberRefused(PushChannel& channel, std::int32_t callbackId, uid_t owner) {
    const SubscriptionKey key{channel.address(), callbackId, owner};
    if (table_.find(key) == nullptr) return;
    ORVO_LOG(4, "ksd: notifier: " << key.address << " does not belong to uid " << static_cast<long>(owner)
                                  << ", dropping subscription " << callbackId);
    const std::string event = table_.find(key)->event;
    table_.remove(key);
    persist([&] { store_->erase(key); });
    noteInterest(event);
}

template <typename Write>
void NotifierService::persist(Write write) {
    if (store_) store::writeOrLog("notifier: subscriptions", write);
}

void NotifierService::restoreFrom(std::unique_ptr<SubscriptionStore> store) {
    std::size_t restored = 0;
    for (StoredSubscription& sub : store->loadAll())
        if (table_.add(sub.key, std::move(sub.event)) != SubscriptionTable::AddResult::OverLimit) ++restored;
    store_ = std::move(store);
    if (restored != 0)
        ORVO_LOG(5, "ksd: notifier: restored " << static_cast<unsigned long>(restored) << " subscriptions");
}

void NotifierService::shutdown() {
    shutDown_ = true;
    sweepTimer_.cancel();
    auto channels = std::move(channels_);
    channels_.clear();
    for (auto& [address, channel] : channels) {
        channel->detach();
        channel->close();
    }
}

std::vector<StatusItem> NotifierService::status() const {
    std::int64_t connected = 0;
    std::int64_t queued = 0;
    for (const auto& [address, channel] : channels_) {
        if (channel->connected()) ++connected;
        queued += static_cast<std::int64_t>(channel->queuedFrames());
    }
    return {{"subscriptions", static_cast<std::int64_t>(table_.size())},
            {"queue_drops", static_cast<std::int64_t>(queueDrops_)},
            {"push_connections", connected},
            {"queued_notifications", queued},
            {"notifications", static_cast<std::int64_t>(published_)}};
}

std::string NotifierService::query(std::string_view what) const { return listSubscriptions(what, nullptr); }

std::string NotifierService::queryFor(std::string_view what, const PeerInfo& asker) const {
    return listSubscriptions(what, &asker);
}

std::string NotifierService::listSubscriptions(std::string_view what, const PeerInfo* asker) const {
    // Paged by registration number: "subscriptions>SEQ" is the page after SEQ.
    const auto after = pageAfter(what, "subscriptions");
    if (!after) return {};
    // Callback addresses and ids are what a forger needs: only their owner sees them.
    const bool seesAll = asker == nullptr || isRoot(*asker);
    std::string out = "[";
    table_.forEachAfter(static_cast<std::uint64_t>(*after), [&](const SubscriptionKey& key, const Subscription& sub) {
        if (!seesAll && (!isIdentified(*asker) || key.owner != asker->uid)) return true;
        if (out.size() > 1) out.push_back(',');
        out += "{\"seq\":" + std::to_string(sub.sequence) + ",\"event\":";
        jsontext::appendString(out, sub.event);
        out += ",\"address\":";
        jsontext::appendString(out, key.address);
        out += ",\"id\":" + std::to_string(key.callbackId);
        out += ",\"uid\":" + std::to_string(static_cast<long>(static_cast<std::int32_t>(key.owner))) + "}";
        return out.size() < kListPageBytes;
    });
    out.push_back(']');
    return out;
}

void NotifierService::scheduleSweep() {
    if (limits_.sweepInterval.count() <= 0 || shutDown_) return;
    sweepTimer_.expires_after(limits_.sweepInterval);
    sweepTimer_.async_wait([this](const std::error_code& ec) {
        if (!ec) sweep({});
    });
}

void NotifierService::sweep(std::string from) {
    // A batch per turn of the loop, so that requests are served between batches.
    constexpr std::size_t kBatch = 256;
    if (shutDown_) return;
    std::vector<std::string> addresses;
    const auto& all = table_.all();
    for (auto it = all.upper_bound(SubscriptionKey{from, INT32_MAX, static_cast<uid_t>(-1)});
         it != all.end() && addresses.size() < kBatch;
         it = all.upper_bound(SubscriptionKey{it->first.address, INT32_MAX, static_cast<uid_t>(-1)}))
        addresses.push_back(it->first.address);
    for (const std::string& address : addresses) {
        // A live push connection is watched already.
        if (channels_.count(address) != 0) continue;
        CallbackAddress parsed;
        if (parseCallbackAddress(address, parsed) != AddressCheck::Ok || parsed.kind != CallbackAddress::Kind::Pipe)
            continue;
        const int error = probePipe(parsed.endpoint());
        if (error != ECONNREFUSED && error != ENOENT) continue;
        const std::size_t dropped = table_.removeAddress(address);
        persist([&] { store_->eraseAddress(address); });
        pruneInterest();
        ORVO_LOG(4, "ksd: notifier: swept " << static_cast<unsigned long>(dropped) << " subscriptions of " << address
                                            << " (" << std::strerror(error) << ")");
    }
    if (addresses.size() < kBatch)
        scheduleSweep();
    else
        asio::post(io_, [this, alive = std::weak_ptr<char>(alive_), last = addresses.back()] {
            if (!alive.expired()) sweep(last);
        });
}

}  // namespace ksd
