#include "cluster/cluster_wire.h"

#include <cstdint>

namespace ksd::cluster {

namespace {

constexpr char kDigits[] = "0123456789abcdef";

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

void putU32(std::string& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

bool takeU32(std::string_view& in, std::uint32_t& v) {
    if (in.size() < 4) return false;
    v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<std::uint32_t>(static_cast<unsigned char>(in[i])) << (8 * i);
    in.remove_prefix(4);
    return true;
}

}  // namespace

std::string hexToken(std::string_view name) {
    std::string out;
    out.reserve(name.size() * 2 + 1);
    // An empty name still needs a token: "_" stands for it.
    if (name.empty()) return "_";
    for (unsigned char c : name) {
        out.push_back(kDigits[c >> 4]);
        out.push_back(kDigits[c & 15]);
    }
    return out;
}

std::optional<std::string> fromHexToken(std::string_view token) {
    if (token == "_") return std::string();
    if (token.empty() || token.size() % 2 != 0) return std::nullopt;
    std::string out;
    out.reserve(token.size() / 2);
    for (std::size_t i = 0; i < token.size(); i += 2) {
        const int hi = hexValue(token[i]);
        const int lo = hexValue(token[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<char>(hi * 16 + lo));
    }
    return out;
}

std::string subjectFor(std::string_view cluster, const ClusterTopic& topic) {
    std::string s(cluster);
    if (topic.family.empty()) return s.append(".n.").append(hexToken(topic.event));
    s.append(".d.").append(topic.family).push_back('.');
    return topic.wholeFamily() ? s.append("*") : s.append(hexToken(topic.event));
}

std::optional<std::string> eventOfSubject(std::string_view subject) {
    const auto dot = subject.rfind('.');
    if (dot == std::string_view::npos) return std::nullopt;
    return fromHexToken(subject.substr(dot + 1));
}

std::string nodeSubject(std::string_view cluster, std::string_view node) {
    return std::string(cluster).append(".node.").append(hexToken(node));
}

std::string allNodesSubject(std::string_view cluster) { return std::string(cluster).append(".node.*"); }

std::string encodeNotification(const WireNotification& n) {
    std::string out;
    out.reserve(25 + n.node.size() + n.sender.size() + n.text.size() + n.payload.size());
    out.push_back(n.audience.everyone ? 1 : 0);
    putU32(out, n.audience.owner);
    for (std::string_view field :
         {std::string_view(n.node), std::string_view(n.sender), std::string_view(n.text), std::string_view(n.payload)})
        putField(out, field);
    return out;
}

std::optional<WireNotification> decodeNotification(std::string_view body) {
    WireNotification n;
    if (body.empty()) return std::nullopt;
    n.audience.everyone = body[0] != 0;
    body.remove_prefix(1);
    if (!takeU32(body, n.audience.owner)) return std::nullopt;
    for (std::string* field : {&n.node, &n.sender, &n.text, &n.payload})
        if (!takeField(body, *field)) return std::nullopt;
    if (!body.empty()) return std::nullopt;
    return n;
}

void putField(std::string& out, std::string_view field) {
    putU32(out, static_cast<std::uint32_t>(field.size()));
    out.append(field);
}

bool takeField(std::string_view& in, std::string& field) {
    std::uint32_t n = 0;
    if (!takeU32(in, n) || in.size() < n) return false;
    field.assign(in.substr(0, n));
    in.remove_prefix(n);
    return true;
}

bool isPlainToken(std::string_view text) {
    if (text.empty()) return false;
    for (char c : text)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_'))
            return false;
    return true;
}

}  // namespace ksd::cluster
