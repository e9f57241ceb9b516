#include "services/notifier/push_frame.h"

#include <algorithm>

#include "OrvoCodec.h"
#include "services/notifier/notifier_limits.h"

namespace ksd {

namespace Codec = OrvoNet::Codec;

std::uint64_t maxFramePayload(const NotifierLimits& limits) {
    // A payload larger than a queue could never be queued whole.
    const std::uint64_t queue = limits.maxQueuedBytes > kFrameHeaderSize ? limits.maxQueuedBytes - kFrameHeaderSize : 0;
    return std::min<std::uint64_t>({limits.maxPayload, Codec::kMaxPushPayload, queue});
}

FrameHeader frameHeader(std::int32_t callbackId, std::uint32_t payloadLength) {
    FrameHeader h{};
    h[0] = Codec::kTagInt;
    Codec::storeBE32(h.data() + 1, static_cast<std::uint32_t>(callbackId));
    h[5] = Codec::kTagInt;
    Codec::storeBE32(h.data() + 6, payloadLength);
    return h;
}

std::string encodeNotification(std::string_view sender, std::string_view event, std::string_view text,
                               std::string_view payload) {
    std::string out;
    out.reserve(3 * Codec::kStringHeaderSize + sender.size() + event.size() + text.size() + 9 + payload.size());
    Codec::putString(out, sender);
    Codec::putString(out, event);
    Codec::putString(out, text);
    Codec::putLong(out, static_cast<std::int64_t>(payload.size()));
    out.append(payload);
    return out;
}

}  // namespace ksd
