#ifndef ORVO_PROTOCOL_H
#define ORVO_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <string_view>

// Constants of the wire protocol that both ends must agree on: the client
// library and the daemon take them from here, never from copies of their own.
namespace OrvoNet::Protocol {

// Every request opens with these two shorts; every reply closes with a short
// 0 and the magic again.
inline constexpr std::int16_t kProtocolVersion = 1;
inline constexpr std::int16_t kMagic = 7777;

// A push frame opens with two tagged ints (callback id, payload length).
inline constexpr std::size_t kPushFrameHeaderSize = 10;

// Event-name prefixes of the library's own families. Public subscription to a
// name whose first kReservedPrefixLength characters match one is refused.
inline constexpr std::string_view kTaskEventPrefix = "OrvoTSEvent:";
inline constexpr std::string_view kLockEventPrefix = "OrvoRAEvent:";
inline constexpr std::string_view kJobEventPrefix = "OrvoJSEvent:";
inline constexpr std::size_t kReservedPrefixLength = 11;
inline constexpr std::string_view kReservedEventPrefixes[] = {kLockEventPrefix.substr(0, kReservedPrefixLength),
                                                              kJobEventPrefix.substr(0, kReservedPrefixLength),
                                                              kTaskEventPrefix.substr(0, kReservedPrefixLength)};

// True when the name starts with one of the reserved prefixes.
constexpr bool isReservedEventName(std::string_view sName) {
    for (std::string_view sPrefix : kReservedEventPrefixes)
        if (sName.substr(0, kReservedPrefixLength) == sPrefix) return true;
    return false;
}

}  // namespace OrvoNet::Protocol

#endif
