#include "service_manager.h"

#include <cstdlib>
#include <string_view>

#ifdef KSD_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace ksd {

std::optional<std::filesystem::path> managerStateDirectory() {
    const char* value = std::getenv("STATE_DIRECTORY");
    if (value == nullptr) return std::nullopt;
    // Several StateDirectory= entries arrive colon-separated; ours is the first.
    std::string_view dirs(value);
    const std::filesystem::path first(dirs.substr(0, dirs.find(':')));
    if (!first.is_absolute()) return std::nullopt;
    return first;
}

#ifdef KSD_HAVE_SYSTEMD
void notifyReady() { ::sd_notify(0, "READY=1"); }
void notifyStopping() { ::sd_notify(0, "STOPPING=1"); }
#else
void notifyReady() {}
void notifyStopping() {}
#endif

}  // namespace ksd
