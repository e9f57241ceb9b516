#ifndef KSD_SERVICES_NOTIFIER_OPERATOR_QUERY_H
#define KSD_SERVICES_NOTIFIER_OPERATOR_QUERY_H

// The operator's questions travel the notification network: a client
// publishes "KsdQuery" (text = the query, payload = a reply token) and the
// daemon publishes the JSON answer as "KsdReply:<token>$".

#include <string>
#include <string_view>

namespace ksd {

inline constexpr std::string_view kQueryEvent = "KsdQuery";
inline constexpr std::string_view kReplyEventPrefix = "KsdReply:";

// Tokens are short and plain ("<pid>-<counter>"), so a reply event name
// cannot be bent into someone else's.
bool isValidQueryToken(std::string_view token);
std::string replyEventName(std::string_view token);

// Event names only the daemon publishes (a client may subscribe to them).
bool isDaemonEventName(std::string_view event);

}  // namespace ksd

#endif
