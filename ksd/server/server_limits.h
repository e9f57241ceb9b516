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
    // Open connections of one user (all TCP clients count as one user).
    std::size_t maxConnectionsPerUser = 512;
    // Beyond this the daemon closes new connections at once, without a word.
    std::size_t maxConnections = 8192;
    // After an error value the daemon reads and discards what the client is
    // still sending, so that it reaches the read that finds the error.
    std::chrono::milliseconds errorDrainTime{2000};
    std::size_t errorDrainBytes = 80u * 1024u * 1024u;
    // Bytes of following requests read while one is being served.
    std::size_t maxPipelinedBytes = 64u * 1024u;
    ParserLimits parser;
};

}  // namespace ksd

#endif
