#ifndef KSD_CLUSTER_CLUSTER_WIRE_H
#define KSD_CLUSTER_CLUSTER_WIRE_H

// What nodes say to each other on NATS, free of NATS itself: subjects that
// carry any event name in one token (hex of its bytes, so '.', ' ', '*',
// '>' and '$' cannot split or widen a subject), and the body of a forwarded
// notification.

#include <optional>
#include <string>
#include <string_view>

#include "cluster/cluster_link.h"

namespace ksd::cluster {

std::string hexToken(std::string_view name);
// Empty optional for text that is not an even run of lowercase hex digits.
std::optional<std::string> fromHexToken(std::string_view token);

// "<cluster>.n.<hex(event)>", "<cluster>.d.<family>.<hex(event)>" or, for a
// whole family, "<cluster>.d.<family>.*".
std::string subjectFor(std::string_view cluster, const ClusterTopic& topic);
// The event named by the last token of a notification subject.
std::optional<std::string> eventOfSubject(std::string_view subject);
// Every node says it is alive on "<cluster>.node.<hex(node)>".
std::string nodeSubject(std::string_view cluster, std::string_view node);
std::string allNodesSubject(std::string_view cluster);

struct WireNotification {
    std::string node, sender, text, payload;
    ClusterAudience audience;
};
std::string encodeNotification(const WireNotification& n);
// Empty optional for a body that is cut short or has bytes left over.
std::optional<WireNotification> decodeNotification(std::string_view body);

// Length-prefixed fields, for the bodies above and the records of buckets.
void putField(std::string& out, std::string_view field);
// False when `in` is cut short; takes the field off its front otherwise.
bool takeField(std::string_view& in, std::string& field);

// A cluster or family name must be one plain subject token.
bool isPlainToken(std::string_view text);

}  // namespace ksd::cluster

#endif
