#include "state_dir.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace ksd {

std::filesystem::path defaultStateDir() {
    if (::geteuid() == 0) return "/var/lib/ksd";
    const char* xdg = std::getenv("XDG_STATE_HOME");
    // The XDG rules ignore relative values.
    if (xdg != nullptr && xdg[0] == '/') return std::filesystem::path(xdg) / "ksd";
    const char* home = std::getenv("HOME");
    std::filesystem::path base;
    if (home != nullptr && home[0] != '\0') {
        base = home;
    } else if (const passwd* pw = ::getpwuid(::geteuid()); pw != nullptr && pw->pw_dir != nullptr) {
        base = pw->pw_dir;
    } else {
        base = "/tmp";
    }
    return base / ".local" / "state" / "ksd";
}

void ensureStateDir(const std::filesystem::path& dir) {
    if (std::filesystem::is_directory(dir)) return;
    std::filesystem::create_directories(dir);
    // Stored jobs and tasks of every user: readable by the daemon only.
    std::filesystem::permissions(dir, std::filesystem::perms::owner_all, std::filesystem::perm_options::replace);
}

}  // namespace ksd
