#include "protocol/request.h"

#include <utility>

namespace ksd {

std::string peerText(const PeerInfo& peer) {
    if (!peer.isUnix) return peer.tcpOwnerKnown ? "a TCP client of uid " + std::to_string(peer.uid) : "a TCP client";
    return "pid " + std::to_string(peer.pid) + " uid " + std::to_string(peer.uid);
}

FieldPlan fixedPlan(std::vector<FieldKind> kinds) {
    return [kinds = std::move(kinds)](const std::vector<Value>& fieldsSoFar) -> FieldSpec {
        if (fieldsSoFar.size() < kinds.size()) return FieldSpec{kinds[fieldsSoFar.size()], 0, 0};
        return FieldSpec{FieldKind::Done, 0, 0};
    };
}

std::string intReply(std::int32_t value) {
    std::string out;
    OrvoNet::Codec::putInt(out, value);
    return out;
}

std::string longReply(std::int64_t value) {
    std::string out;
    OrvoNet::Codec::putLong(out, value);
    return out;
}

std::string stringReply(std::string_view value) {
    std::string out;
    OrvoNet::Codec::putString(out, value);
    return out;
}

}  // namespace ksd
