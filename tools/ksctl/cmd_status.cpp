#include "commands.h"
#include "operator_query.h"
#include "json.h"

namespace ksctl {

int runStatus(const GlobalOptions& options) { return printQuery(options, "status", JsonValue::Kind::Object, ""); }

int runLocks(const GlobalOptions& options) {
    return printQuery(options, "locks", JsonValue::Kind::Array, "no locks held");
}

int runSubscriptions(const GlobalOptions& options) {
    return printQuery(options, "subscriptions", JsonValue::Kind::Array, "no subscriptions");
}

}  // namespace ksctl
