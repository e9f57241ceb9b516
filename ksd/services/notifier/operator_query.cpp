#include "services/notifier/operator_query.h"

#include "OrvoProtocol.h"

namespace ksd {

namespace {
constexpr std::size_t kMaxTokenLength = 64;
// The client library reserves these by their first 11 characters.
constexpr auto& kFamilyPrefixes = OrvoNet::Protocol::kReservedEventPrefixes;
}  // namespace

bool isValidQueryToken(std::string_view token) {
    if (token.empty() || token.size() > kMaxTokenLength) return false;
    for (char c : token) {
        const bool ok = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
                        c == '_' || c == '.';
        if (!ok) return false;
    }
    return true;
}

std::string replyEventName(std::string_view token) {
    std::string name(kReplyEventPrefix);
    name.append(token);
    name.push_back('$');
    return name;
}

bool isDaemonEventName(std::string_view event) {
    for (auto prefix : kFamilyPrefixes)
        if (event.substr(0, prefix.size()) == prefix) return true;
    return event.substr(0, kReplyEventPrefix.size()) == kReplyEventPrefix;
}

}  // namespace ksd
