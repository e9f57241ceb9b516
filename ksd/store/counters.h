#ifndef KSD_STORE_COUNTERS_H
#define KSD_STORE_COUNTERS_H

// Named numbers kept in the counters table (high-water marks that must
// survive restarts): read with the row made at 0 when new, and set.
// Throw StoreError.

#include <cstdint>
#include <string_view>

#include "store/database.h"

namespace ksd::store {

std::int64_t counterValue(Database& db, std::string_view name);
void setCounter(Database& db, std::string_view name, std::int64_t value);

}  // namespace ksd::store

#endif
