#include "state_dir.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

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
    namespace fs = std::filesystem;
    if (!fs::is_directory(dir)) fs::create_directories(dir);
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0)
        throw fs::filesystem_error("cannot read the state directory", dir, std::error_code(errno, std::generic_category()));
    // Another user's directory could be read or swapped under us.
    if (st.st_uid != ::geteuid())
        throw std::runtime_error("state directory " + dir.string() + " belongs to uid " + std::to_string(st.st_uid) +
                                 ", not to this ksd's uid " + std::to_string(::geteuid()));
    // Stored jobs, tasks and subscriptions of every user: for the daemon only,
    // also when an older ksd left them readable.
    fs::permissions(dir, fs::perms::owner_all, fs::perm_options::replace);
    for (const auto& entry : fs::directory_iterator(dir))
        if (entry.is_regular_file())
            fs::permissions(entry.path(), fs::perms::owner_read | fs::perms::owner_write, fs::perm_options::replace);
}

}  // namespace ksd
