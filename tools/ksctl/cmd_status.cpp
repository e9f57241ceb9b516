#include "commands.h"
#include "daemon_query.h"
#include "json.h"

namespace ksctl {

int runStatus(const GlobalOptions& options) { return printQuery(options, "status", JsonValue::Kind::Object, ""); }

int runLocks(const GlobalOptions& options) {
    return printQuery(options, "locks", JsonValue::Kind::Array, "no locks held");
}

}  // namespace ksctl
