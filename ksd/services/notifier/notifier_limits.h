#ifndef KSD_SERVICES_NOTIFIER_NOTIFIER_LIMITS_H
#define KSD_SERVICES_NOTIFIER_NOTIFIER_LIMITS_H

// Bounds of the notification network: what one subscriber may make the
// daemon hold, and what one user may register.

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace ksd {

struct NotifierLimits {
    // Per callback address: notifications waiting to be pushed, by count and bytes.
    std::size_t maxQueuedFrames = 1024;
    std::size_t maxQueuedBytes = 80u * 1024u * 1024u;
    // All the queues together, per subscription owner (root is not bound).
    std::size_t maxQueuedBytesPerUser = 64u * 1024u * 1024u;
    // Root is not bound by it.
    std::size_t maxSubscriptionsPerUser = 4096;
    // Payload of one notification; a payload larger than maxQueuedBytes could
    // never be queued, so the smaller of the two applies.
    std::uint64_t maxPayload = 64u * 1024u * 1024u;
    std::size_t maxEventNameLength = 4096;
    std::chrono::milliseconds connectTimeout{5000};
    // How often subscriptions of pipe addresses nobody pushes to are checked
    // for a listener (a gone one is dropped); zero never.
    std::chrono::milliseconds sweepInterval{60000};
};

}  // namespace ksd

#endif
