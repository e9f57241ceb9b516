// The one encoder/decoder of typed wire values.
#include "OrvoCodec.h"

#include <cerrno>

namespace OrvoNet::Codec {

namespace {

template <class Encode, class T>
void append(std::string& out, Encode encode, T v) {
    char buf[kMaxScalarSize];
    out.append(buf, encode(buf, v));
}

}  // namespace

void putShort(std::string& out, std::int16_t v) { append(out, encodeShort, v); }
void putInt(std::string& out, std::int32_t v) { append(out, encodeInt, v); }
void putLong(std::string& out, std::int64_t v) { append(out, encodeLong, v); }
void putBool(std::string& out, bool v) { append(out, encodeBool, v); }

void putString(std::string& out, std::string_view s) {
    char buf[kStringHeaderSize];
    storeStringHeader(buf, static_cast<std::uint32_t>(s.size()));
    out.append(buf, sizeof buf);
    out.append(s);
}

void putError(std::string& out, std::int32_t code, std::string_view message) {
    char buf[9] = {kTagError};
    storeBE32(buf + 1, static_cast<std::uint32_t>(code));
    storeBE32(buf + 5, static_cast<std::uint32_t>(message.size()));
    out.append(buf, sizeof buf);
    out.append(message);
}

Result decode(const char* data, std::size_t size, Value& value, std::size_t& consumed, int& error,
              std::uint32_t maxString) {
    consumed = 0;
    if (size == 0) return Result::indeterminate;
    const char tag = data[0];
    const char* body = data + 1;
    const std::size_t avail = size - 1;

    // Fixed-size bodies.
    std::size_t fixed = 0;
    switch (tag) {
    case kTagShort: fixed = 2; break;
    case kTagInt: fixed = 4; break;
    case kTagLong: fixed = 8; break;
    case kTagBool: fixed = 1; break;
    case kTagString: fixed = 4; break;
    case kTagError: fixed = 8; break;
    default:
        error = EPROTO;
        return Result::bad;
    }
    if (avail < fixed) return Result::indeterminate;

    if (tag == kTagString || tag == kTagError) {
        // A length, checked before the body is awaited.
        const auto len = static_cast<std::int32_t>(loadBE32(body + (tag == kTagString ? 0 : 4)));
        if (len < 0 || static_cast<std::uint32_t>(len) > maxString) {
            error = EMSGSIZE;
            return Result::bad;
        }
        const auto n = static_cast<std::size_t>(len);
        if (avail - fixed < n) return Result::indeterminate;
        value.tag = tag;
        value.integer = tag == kTagString ? 0 : static_cast<std::int32_t>(loadBE32(body));
        value.text.assign(body + fixed, n);
        consumed = 1 + fixed + n;
        return Result::good;
    }

    std::int64_t v = 0;
    switch (tag) {
    case kTagShort: v = static_cast<std::int16_t>(loadBE16(body)); break;
    case kTagInt: v = static_cast<std::int32_t>(loadBE32(body)); break;
    case kTagLong: v = static_cast<std::int64_t>(loadBE64(body)); break;
    default:  // bool
        v = static_cast<unsigned char>(body[0]);
        if (v > 1) {
            error = EPROTO;
            return Result::bad;
        }
    }
    value.tag = tag;
    value.integer = v;
    value.text.clear();
    consumed = 1 + fixed;
    return Result::good;
}

}  // namespace OrvoNet::Codec
