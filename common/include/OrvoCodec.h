#ifndef ORVO_CODEC_H
#define ORVO_CODEC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "OrvoExport.h"
#include "OrvoProtocol.h"  // the constants every codec user frames requests with

// The tag/length encoding of the wire, as pure functions over byte buffers.
// Both the client connections and the daemon's incremental decoder use it.
namespace OrvoNet::Codec {

inline constexpr char kTagShort = 'h';
inline constexpr char kTagInt = 'i';
inline constexpr char kTagLong = 'l';
inline constexpr char kTagBool = 'b';
inline constexpr char kTagString = 's';
inline constexpr char kTagError = 'E';

inline constexpr std::uint32_t kMaxStringLength = 16u * 1024u * 1024u;
inline constexpr std::uint32_t kMaxPushPayload = 64u * 1024u * 1024u;

// Big-endian integer bodies.
inline void storeBE16(char* p, std::uint16_t v) {
    p[0] = static_cast<char>(v >> 8);
    p[1] = static_cast<char>(v);
}
inline void storeBE32(char* p, std::uint32_t v) {
    for (int i = 3; i >= 0; --i, v >>= 8) p[i] = static_cast<char>(v);
}
inline void storeBE64(char* p, std::uint64_t v) {
    for (int i = 7; i >= 0; --i, v >>= 8) p[i] = static_cast<char>(v);
}
inline std::uint16_t loadBE16(const char* p) {
    return static_cast<std::uint16_t>((static_cast<unsigned char>(p[0]) << 8) | static_cast<unsigned char>(p[1]));
}
inline std::uint32_t loadBE32(const char* p) {
    std::uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | static_cast<unsigned char>(p[i]);
    return v;
}
inline std::uint64_t loadBE64(const char* p) {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | static_cast<unsigned char>(p[i]);
    return v;
}

// Encoders of one whole scalar value into p (room for kMaxScalarSize bytes);
// each returns the size it wrote. The appenders below and the client
// connections both encode through these.
inline constexpr std::size_t kMaxScalarSize = 9;
inline std::size_t encodeShort(char* p, std::int16_t v) {
    p[0] = kTagShort;
    storeBE16(p + 1, static_cast<std::uint16_t>(v));
    return 3;
}
inline std::size_t encodeInt(char* p, std::int32_t v) {
    p[0] = kTagInt;
    storeBE32(p + 1, static_cast<std::uint32_t>(v));
    return 5;
}
inline std::size_t encodeLong(char* p, std::int64_t v) {
    p[0] = kTagLong;
    storeBE64(p + 1, static_cast<std::uint64_t>(v));
    return 9;
}
inline std::size_t encodeBool(char* p, bool v) {
    p[0] = kTagBool;
    p[1] = static_cast<char>(v ? 1 : 0);
    return 2;
}

// Appenders: each adds one whole typed value to `out`.
ORVO_NET_API void putShort(std::string& out, std::int16_t v);
ORVO_NET_API void putInt(std::string& out, std::int32_t v);
ORVO_NET_API void putLong(std::string& out, std::int64_t v);
ORVO_NET_API void putBool(std::string& out, bool v);
ORVO_NET_API void putString(std::string& out, std::string_view s);
ORVO_NET_API void putError(std::string& out, std::int32_t code, std::string_view message);

// Size of the tag and fixed part that precede a value's body (1 + 4 for a string).
inline constexpr std::size_t kStringHeaderSize = 5;
// Writes the tag and length of a string of n bytes into p[0..4].
inline void storeStringHeader(char* p, std::uint32_t n) {
    p[0] = kTagString;
    storeBE32(p + 1, n);
}

enum class Result { good, bad, indeterminate };

// One decoded value. `integer` holds short/int/long/bool values and an
// error's code; `text` a string's bytes or an error's message.
struct Value {
    char tag = 0;
    std::int64_t integer = 0;
    std::string text;
};

// Decodes the typed value at the front of [data, data+size).
//   good:          `value` filled, `consumed` = bytes it took;
//   indeterminate: the value is not complete yet (nothing consumed);
//   bad:           `error` = EPROTO (unknown tag, bool not 0/1) or
//                  EMSGSIZE (negative or over-limit length).
// Lengths are checked before any byte of a body is awaited, so a peer can
// never make the caller wait for or buffer more than `maxString` bytes.
ORVO_NET_API Result decode(const char* data, std::size_t size, Value& value, std::size_t& consumed, int& error,
                           std::uint32_t maxString = kMaxStringLength);

}  // namespace OrvoNet::Codec

#endif
