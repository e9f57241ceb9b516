#ifndef KSD_SERVER_SERVER_LIMITS_H
#define KSD_SERVER_SERVER_LIMITS_H

// The request layer's limits; each one ends a single connection with a
// clear error and leaves every other connection alone.

#include <chrono>
#include <cstddef>

#include "protocol/request_parser.h"

namespace ksd {

struct ServerLimits {
    // A request that has begun must be whole within this time.
    std::chrono::milliseconds requestTimeout{30000};
    // Open connections of one user (all TCP clients count as one user); root
    // is not bound by it. A connection over it gets its error value at once.
    std::size_t maxConnectionsPerUser = 512;
    // Beyond this the daemon closes new connections at once, without a word;
    // the last `rootReserve` of them are for root alone.
    std::size_t maxConnections = 8192;
    std::size_t rootReserve = 64;
    // Bytes held for requests not yet whole, per user (root exempt) and in all;
    // a user over budget is not read from until its requests complete or time out.
    std::size_t maxPendingBytesPerUser = 64u * 1024u * 1024u;
    std::size_t maxPendingBytes = 256u * 1024u * 1024u;
    // After an error value the daemon reads and discards what the client is
    // still sending, so that it reaches the read that finds the error.
    std::chrono::milliseconds errorDrainTime{2000};
    std::size_t errorDrainBytes = 80u * 1024u * 1024u;
    // Bytes of following requests read while one is being served. A reply
    // the client does not read within requestTimeout closes the connection.
    std::size_t maxPipelinedBytes = 64u * 1024u;
    ParserLimits parser;
    // The descriptor limit the caps were fitted under (0: not fitted).
    std::size_t descriptorLimit = 0;
};

// Descriptors the daemon keeps for itself: its database, listeners and the
// callback connections it pushes through.
inline constexpr std::size_t kDescriptorsKept = 256;

// Lowers the connection caps so that they fit under the descriptor limit
// beside the daemon's own and `reserved` more (the programs it runs):
// running out of descriptors would refuse root and stall pushes alike.
inline void fitToDescriptors(ServerLimits& limits, std::size_t descriptorLimit, std::size_t reserved = 0) {
    limits.descriptorLimit = descriptorLimit;
    const std::size_t kept = kDescriptorsKept + reserved;
    const std::size_t room = descriptorLimit > 2 * kept ? descriptorLimit - kept : descriptorLimit / 2;
    if (limits.maxConnections > room) limits.maxConnections = room;
    if (limits.rootReserve > limits.maxConnections / 8) limits.rootReserve = limits.maxConnections / 8;
}

}  // namespace ksd

#endif
