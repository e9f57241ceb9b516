#ifndef KSD_SERVICES_NOTIFIER_PUSH_FRAME_H
#define KSD_SERVICES_NOTIFIER_PUSH_FRAME_H

// The bytes of a callback push: a frame header (tagged int callback id,
// tagged int payload length) and, for a notification, the payload that the
// subscriber's callback reads (sender, event, text, long n, n raw bytes).

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "OrvoProtocol.h"

namespace ksd {

inline constexpr std::size_t kFrameHeaderSize = OrvoNet::Protocol::kPushFrameHeaderSize;
using FrameHeader = std::array<char, kFrameHeaderSize>;

struct NotifierLimits;
// The largest payload one push frame may carry under these limits.
std::uint64_t maxFramePayload(const NotifierLimits& limits);

FrameHeader frameHeader(std::int32_t callbackId, std::uint32_t payloadLength);
std::string encodeNotification(std::string_view sender, std::string_view event, std::string_view text,
                               std::string_view payload);

}  // namespace ksd

#endif
