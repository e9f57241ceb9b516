#ifndef KSD_SERVICES_ARBITER_ARBITER_LIMITS_H
#define KSD_SERVICES_ARBITER_ARBITER_LIMITS_H

// The bounds of the Arbiter: what one user may hold, how long a name may be,
// how big a page of the "locks" listing is.

#include <cstddef>
#include <cstdint>

#include "services/list_page.h"

namespace ksd {

struct ArbiterLimits {
    std::size_t maxNameLength = 1024;    // resource names (EMSGSIZE beyond)
    std::size_t maxLocksPerUser = 4096;  // held at once, in a cluster held or waited for (EDQUOT beyond)
    // Longer time-outs are taken as "without limit".
    std::int64_t maxTimeoutMs = std::int64_t{100} * 365 * 24 * 3600 * 1000;
    std::size_t listPageBytes = kListPageBytes;  // "locks" answered in pages of about this size
};

}  // namespace ksd

#endif
