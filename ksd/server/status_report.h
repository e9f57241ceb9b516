#ifndef KSD_SERVER_STATUS_REPORT_H
#define KSD_SERVER_STATUS_REPORT_H

// Answers the operator's queries as one JSON value: "status" gathers the
// counters of the server and of every service; any other query goes to the
// first service that knows it.

#include <cstddef>
#include <string>
#include <string_view>

#include "services/registry.h"

namespace ksd {

std::string answerOperatorQuery(std::string_view query, const Registry& registry, std::size_t connections);

}  // namespace ksd

#endif
