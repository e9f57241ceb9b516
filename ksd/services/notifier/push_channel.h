#ifndef KSD_SERVICES_NOTIFIER_PUSH_CHANNEL_H
#define KSD_SERVICES_NOTIFIER_PUSH_CHANNEL_H

// The one persistent push connection to a callback address: opened at the
// first push, frames written in publication order, bounded by count and
// bytes (a full queue drops the new frame and counts it). A subscriber that
// never reads only fills its own queue.

#include <sys/types.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "net/endpoints.h"
#include "services/notifier/callback_address.h"
#include "services/notifier/notifier_limits.h"
#include "services/notifier/push_budget.h"
#include "services/notifier/push_frame.h"

namespace ksd {

class PushChannel;

// What a channel reports to whoever owns it: always on a later turn of the
// event loop, never from inside one of the channel's own calls, so the owner
// may drop the channel at once.
class PushChannelOwner {
public:
    virtual ~PushChannelOwner() = default;
    // Connect failed, peer closed or a write failed; the channel is closed.
    virtual void channelFailed(PushChannel& channel, const std::string& reason) = 0;
    // Everything queued has been written.
    virtual void channelIdle(PushChannel& channel) = 0;
    // The listening process does not belong to this subscription's owner.
    virtual void subscriberRefused(PushChannel& channel, std::int32_t callbackId, uid_t owner) = 0;
};

class PushChannel : public std::enable_shared_from_this<PushChannel> {
public:
    PushChannel(asio::io_context& io, std::string addressText, CallbackAddress address, const NotifierLimits& limits,
                std::shared_ptr<PushBudget> budget, PushChannelOwner& owner);
    ~PushChannel();
    PushChannel(const PushChannel&) = delete;
    PushChannel& operator=(const PushChannel&) = delete;

    // Queues one frame; false when the queue or its owner's budget is full
    // (dropped and counted).
    bool push(std::int32_t callbackId, uid_t owner, std::shared_ptr<const std::string> payload);
    // Starts the write push() scheduled now instead of on the loop's next turn.
    void flush();
    void close();
    // The owner hears nothing more (it is dropping the channel or going away).
    void detach() { owner_ = nullptr; }

    const std::string& address() const { return addressText_; }
    std::size_t queuedFrames() const { return queue_.size(); }
    std::size_t queuedBytes() const { return queuedBytes_; }
    std::uint64_t drops() const { return drops_; }
    bool connected() const { return state_ == State::Ready; }

private:
    enum class State { Idle, Connecting, Ready, Closed };
    struct Item {
        FrameHeader header;
        std::int32_t callbackId;
        uid_t owner;
        std::shared_ptr<const std::string> payload;
    };

    void connect();
    void onConnected();
    void writeQueued();
    void watchPeer();
    void fail(const std::string& reason);
    bool ownerAccepted(uid_t owner) const;
    // Takes a frame off the queue, and its bytes off the queue's and the owner's count.
    std::deque<Item>::iterator dequeue(std::deque<Item>::iterator it);
    template <typename Report>
    void report(Report report);

    GenericSocket socket_;
    asio::steady_timer connectTimer_;
    std::string addressText_;
    CallbackAddress address_;
    const NotifierLimits& limits_;
    std::shared_ptr<PushBudget> budget_;
    PushChannelOwner* owner_;
    State state_ = State::Idle;
    std::optional<uid_t> listenerUid_;
    std::deque<Item> queue_;
    std::size_t queuedBytes_ = 0;
    std::size_t inFlight_ = 0;  // frames of the write under way
    bool writeScheduled_ = false;
    std::vector<asio::const_buffer> buffers_;
    std::uint64_t drops_ = 0;
    std::uint64_t dropsInBurst_ = 0;
    char peerScratch_[256];
};

}  // namespace ksd

#endif
