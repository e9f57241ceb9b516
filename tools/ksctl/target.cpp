#include "target.h"

#include <cstdlib>
#include <string_view>

namespace ksctl {
namespace {
constexpr std::string_view kDefaultPipe = "osm_ks_shrsvc";
constexpr int kDefaultPort = 1311;
}

void selectDaemon(const std::optional<std::string>& pipe, const std::optional<int>& tcpPort) {
    if (pipe) {
        ::setenv("KSINTF_CONN_TYPE", ("pipe:" + *pipe).c_str(), 1);
    } else if (tcpPort) {
        ::setenv("KSINTF_CONN_TYPE", ("socket:" + std::to_string(*tcpPort)).c_str(), 1);
    }
}

DaemonAddress daemonAddress() {
    const char* env = std::getenv("KSINTF_CONN_TYPE");
    std::string_view type = env ? env : "";
    DaemonAddress address;
    if (type.starts_with("socket")) {
        address.tcp = true;
        address.port = kDefaultPort;
        if (type.size() > 6 && type[6] == ':') {
            std::string_view rest = type.substr(7);
            const auto colon = rest.rfind(':');
            if (colon != std::string_view::npos) address.host = std::string(rest.substr(0, colon));
            address.port = std::atoi(std::string(rest.substr(colon == std::string_view::npos ? 0 : colon + 1)).c_str());
        }
        return address;
    }
    address.pipe = type.starts_with("pipe:") ? std::string(type.substr(5)) : std::string(kDefaultPipe);
    return address;
}

std::string describeDaemon() {
    const char* env = std::getenv("KSINTF_CONN_TYPE");
    std::string_view type = env ? env : "";
    if (type.empty() || type == "pipe") return "pipe " + std::string(kDefaultPipe);
    if (type.starts_with("pipe:")) return "pipe " + std::string(type.substr(5));
    if (type.starts_with("socket:")) {
        std::string_view rest = type.substr(7);
        auto colon = rest.rfind(':');
        // "socket:PORT" or "socket:HOST:PORT"; an empty host is the loopback.
        if (colon == std::string_view::npos) return "tcp port " + std::string(rest);
        std::string host(rest.substr(0, colon));
        return "tcp " + (host.empty() ? std::string("127.0.0.1") : host) + ":" + std::string(rest.substr(colon + 1));
    }
    return "KSINTF_CONN_TYPE=" + std::string(type);
}

}  // namespace ksctl
