#ifndef KSCTL_TARGET_H
#define KSCTL_TARGET_H

// Which daemon ksctl talks to: --pipe/--tcp-port become KSINTF_CONN_TYPE for this process,
// the one setting libksintf reads whenever it connects.

#include <optional>
#include <string>

namespace ksctl {

// Sets KSINTF_CONN_TYPE to "pipe:NAME" or "socket:PORT"; with neither given the
// environment is left as the caller had it.
void selectDaemon(const std::optional<std::string>& pipe, const std::optional<int>& tcpPort);

// Where the selected daemon listens, read back from KSINTF_CONN_TYPE.
struct DaemonAddress {
    bool tcp = false;
    std::string pipe;  // !tcp
    std::string host;  // tcp: empty means 127.0.0.1
    int port = 0;      // tcp
};
DaemonAddress daemonAddress();

// The daemon address in words, for messages ("pipe osm_ks_shrsvc", "tcp port 7000").
std::string describeDaemon();

}  // namespace ksctl

#endif
