#include "services/notifier/push_channel.h"

#include <asio/post.hpp>
#include <asio/write.hpp>
#include <utility>

#include "OrvoLogging.h"
#include "OrvoPeerCredentials.h"
#include "net/peer_credentials.h"

namespace ksd {

namespace {
// One gathered write carries at most this many frames (IOV_MAX is 1024).
constexpr std::size_t kMaxFramesPerWrite = 256;
}  // namespace

PushChannel::PushChannel(asio::io_context& io, std::string addressText, CallbackAddress address,
                         const NotifierLimits& limits, std::shared_ptr<PushBudget> budget, PushChannelOwner& owner)
    : socket_(io),
      connectTimer_(io),
      addressText_(std::move(addressText)),
      address_(std::move(address)),
      limits_(limits),
      budget_(std::move(budget)),
      owner_(&owner) {}

template <typename Report>
void PushChannel::report(Report report) {
    asio::post(socket_.get_executor(), [self = shared_from_this(), report = std::move(report)] {
        if (self->owner_ != nullptr) report(*self->owner_, *self);
    });
}

PushChannel::~PushChannel() {
    for (const Item& item : queue_) budget_->give(item.owner, kFrameHeaderSize + item.payload->size());
}

bool PushChannel::push(std::int32_t callbackId, uid_t owner, std::shared_ptr<const std::string> payload) {
    if (state_ == State::Closed) return false;
    // Whatever built the payload, a frame the sink would refuse is never sent.
    if (payload->size() > maxFramePayload(limits_)) {
        ++drops_;
        ORVO_LOG(4, "ksd: notifier: a " << static_cast<unsigned long>(payload->size()) << "-byte notification for "
                                        << addressText_ << " is over the push limit of "
                                        << static_cast<unsigned long>(maxFramePayload(limits_)) << " bytes, dropped");
        return false;
    }
    const std::size_t bytes = kFrameHeaderSize + payload->size();
    if (queue_.size() >= limits_.maxQueuedFrames || queuedBytes_ + bytes > limits_.maxQueuedBytes) {
        ++drops_;
        if (dropsInBurst_++ == 0)
            ORVO_LOG(4, "ksd: notifier: queue of " << addressText_ << " is full, dropping notifications");
        return false;
    }
    if (!budget_->take(owner, bytes)) {
        ++drops_;
        if (dropsInBurst_++ == 0)
            ORVO_LOG(4, "ksd: notifier: uid " << owner << " has " << static_cast<unsigned long>(budget_->used(owner))
                                              << " bytes queued for push, dropping its notifications to "
                                              << addressText_);
        return false;
    }
    if (dropsInBurst_ != 0) {
        ORVO_LOG(4, "ksd: notifier: " << addressText_ << " lost " << static_cast<unsigned long>(dropsInBurst_)
                                      << " notifications");
        dropsInBurst_ = 0;
    }
    const auto length = static_cast<std::uint32_t>(payload->size());
    queue_.push_back(Item{frameHeader(callbackId, length), callbackId, owner, std::move(payload)});
    queuedBytes_ += bytes;
    if (state_ == State::Idle) {
        connect();
    } else if (state_ == State::Ready && inFlight_ == 0 && !writeScheduled_) {
        // Later pushes of the same turn of the loop join this write.
        writeScheduled_ = true;
        asio::post(socket_.get_executor(), [self = shared_from_this()] {
            if (self->writeScheduled_) self->writeQueued();
        });
    }
    return true;
}

void PushChannel::flush() {
    if (writeScheduled_) writeQueued();
}

void PushChannel::connect() {
    state_ = State::Connecting;
    const GenericEndpoint endpoint = address_.endpoint();
    std::error_code ec;
    socket_.open(endpoint.protocol(), ec);
    if (ec) {
        asio::post(socket_.get_executor(), [self = shared_from_this(), reason = ec.message()] { self->fail(reason); });
        return;
    }
    connectTimer_.expires_after(limits_.connectTimeout);
    connectTimer_.async_wait([self = shared_from_this()](const std::error_code& waitEc) {
        if (!waitEc && self->state_ == State::Connecting) self->fail("connect timed out");
    });
    socket_.async_connect(endpoint, [self = shared_from_this()](const std::error_code& connectEc) {
        if (self->state_ != State::Connecting) return;
        self->connectTimer_.cancel();
        if (connectEc) {
            self->fail(connectEc.message());
            return;
        }
        self->onConnected();
    });
}

void PushChannel::onConnected() {
    if (address_.kind == CallbackAddress::Kind::Pipe) {
        auto cred = peerCredentials(socket_.native_handle());
        if (!cred) {
            fail("no peer credentials");
            return;
        }
        listenerUid_ = cred->uid;
    } else {
        // The port may have changed hands since the registration was checked.
        OrvoNet::OrvoPeerCredentials cred;
        if (!OrvoNet::peerCredentials(socket_.native_handle(), cred) || cred.m_nUid < 0) {
            fail("the owner of the listening socket cannot be learnt");
            return;
        }
        listenerUid_ = static_cast<uid_t>(cred.m_nUid);
    }
    std::error_code ignored;
    socket_.non_blocking(true, ignored);
    state_ = State::Ready;
    ORVO_LOG(9, "ksd: notifier: push connection to " << addressText_ << " open");
    watchPeer();
    writeQueued();
}

// A TCP client's subscription (no uid) may only have been made for a loopback port.
bool PushChannel::ownerAccepted(uid_t owner) const {
    if (!listenerUid_) return false;
    if (owner == static_cast<uid_t>(-1)) return address_.kind == CallbackAddress::Kind::Tcp;
    return owner == 0 || owner == *listenerUid_;
}

void PushChannel::writeQueued() {
    writeScheduled_ = false;
    if (state_ != State::Ready || inFlight_ != 0) return;
    // Frames for a subscriber the listener does not belong to are never sent.
    std::vector<std::pair<std::int32_t, uid_t>> refused;
    buffers_.clear();
    for (auto it = queue_.begin(); it != queue_.end() && inFlight_ < kMaxFramesPerWrite;) {
        if (!ownerAccepted(it->owner)) {
            refused.emplace_back(it->callbackId, it->owner);
            it = dequeue(it);
            continue;
        }
        buffers_.emplace_back(asio::buffer(it->header));
        if (!it->payload->empty()) buffers_.emplace_back(asio::buffer(*it->payload));
        ++inFlight_;
        ++it;
    }
    for (const auto& entry : refused)
        report([entry](PushChannelOwner& o, PushChannel& c) { o.subscriberRefused(c, entry.first, entry.second); });
    if (inFlight_ == 0) {
        report([](PushChannelOwner& o, PushChannel& c) { o.channelIdle(c); });
        return;
    }
    asio::async_write(socket_, buffers_, [self = shared_from_this()](const std::error_code& ec, std::size_t) {
        if (self->state_ != State::Ready) return;
        if (ec) {
            self->fail(ec.message());
            return;
        }
        for (std::size_t i = 0; i < self->inFlight_; ++i) self->dequeue(self->queue_.begin());
        self->inFlight_ = 0;
        self->writeQueued();
    });
}

// The sink never writes; readable means it closed (or misbehaves).
void PushChannel::watchPeer() {
    socket_.async_wait(GenericSocket::wait_read, [self = shared_from_this()](const std::error_code& ec) {
        if (self->state_ != State::Ready) return;
        if (ec) {
            self->fail(ec.message());
            return;
        }
        std::error_code readEc;
        const std::size_t n = self->socket_.read_some(asio::buffer(self->peerScratch_), readEc);
        if (readEc == asio::error::would_block || readEc == asio::error::try_again || (!readEc && n > 0)) {
            self->watchPeer();
            return;
        }
        self->fail(readEc ? readEc.message() : "peer closed");
    });
}

void PushChannel::fail(const std::string& reason) {
    if (state_ == State::Closed) return;
    ORVO_LOG(4, "ksd: notifier: callback address " << addressText_ << " unreachable (" << reason
                                                   << "), dropping its subscriptions");
    close();
    report([reason](PushChannelOwner& o, PushChannel& c) { o.channelFailed(c, reason); });
}

void PushChannel::close() {
    if (state_ == State::Closed) return;
    state_ = State::Closed;
    connectTimer_.cancel();
    std::error_code ignored;
    socket_.close(ignored);
    for (const Item& item : queue_) budget_->give(item.owner, kFrameHeaderSize + item.payload->size());
    queue_.clear();
    queuedBytes_ = 0;
    inFlight_ = 0;
}

std::deque<PushChannel::Item>::iterator PushChannel::dequeue(std::deque<Item>::iterator it) {
    const std::size_t bytes = kFrameHeaderSize + it->payload->size();
    queuedBytes_ -= bytes;
    budget_->give(it->owner, bytes);
    return queue_.erase(it);
}

}  // namespace ksd
