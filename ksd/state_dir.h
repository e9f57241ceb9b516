#ifndef KSD_STATE_DIR_H
#define KSD_STATE_DIR_H

// Where the daemon keeps its state when not told: /var/lib/ksd as root,
// else $XDG_STATE_HOME/ksd or ~/.local/state/ksd.

#include <filesystem>

namespace ksd {

std::filesystem::path defaultStateDir();
// Creates the directory (and its parents) when missing; throws std::filesystem_error.
void ensureStateDir(const std::filesystem::path& dir);

}  // namespace ksd

#endif
