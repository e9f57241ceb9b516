// What ksd takes from and tells a service manager: the state directory it
// was given, and when it is ready or stopping (no-ops outside systemd).
#ifndef KSD_SERVICE_MANAGER_H
#define KSD_SERVICE_MANAGER_H

#include <filesystem>
#include <optional>

namespace ksd {

// The first directory of $STATE_DIRECTORY (systemd's StateDirectory=), when
// it is set and absolute.
std::optional<std::filesystem::path> managerStateDirectory();

// sd_notify "READY=1" / "STOPPING=1". Without $NOTIFY_SOCKET, or when built
// without libsystemd, they do nothing.
void notifyReady();
void notifyStopping();

}  // namespace ksd

#endif
