// libFuzzer target for the decoder: whatever the bytes, decode must stay in
// bounds, and a value it accepts must re-encode to exactly the bytes it took.
#include <cerrno>
#include <cstdlib>

#include "OrvoCodec.h"

namespace Codec = OrvoNet::Codec;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* p = reinterpret_cast<const char*>(data);
    Codec::Value v;
    std::size_t consumed = 0;
    int error = 0;
    // A small limit makes the over-limit path reachable with short inputs.
    const std::uint32_t maxString = size > 0 && (data[0] & 1) ? 64 : Codec::kMaxStringLength;
    const Codec::Result result = Codec::decode(p, size, v, consumed, error, maxString);
    if (result == Codec::Result::bad && error != EPROTO && error != EMSGSIZE) std::abort();
    if (result == Codec::Result::indeterminate && consumed != 0) std::abort();
    if (result != Codec::Result::good) return 0;
    // An unknown tag leaves `again` empty, which cannot match.
    std::string again;
    const std::int64_t n = v.integer;
    if (v.tag == Codec::kTagShort) Codec::putShort(again, static_cast<std::int16_t>(n));
    if (v.tag == Codec::kTagInt) Codec::putInt(again, static_cast<std::int32_t>(n));
    if (v.tag == Codec::kTagLong) Codec::putLong(again, n);
    if (v.tag == Codec::kTagBool) Codec::putBool(again, n != 0);
    if (v.tag == Codec::kTagString) Codec::putString(again, v.text);
    if (v.tag == Codec::kTagError) Codec::putError(again, static_cast<std::int32_t>(n), v.text);
    if (consumed > size || again != std::string(p, consumed)) std::abort();
    return 0;
}
