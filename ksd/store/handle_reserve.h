#ifndef KSD_STORE_HANDLE_RESERVE_H
#define KSD_STORE_HANDLE_RESERVE_H

// Hands out numbers (1, 2, ...) that are never handed out again, across
// restarts and kill -9: the stored high-water mark moves a block ahead before
// any number of that block is used, so a store write is rare.

#include <cstdint>
#include <string>

#include "store/database.h"

namespace ksd::store {

class HandleReserve {
public:
    // `counter` names the row in the counters table; created at 0 when new.
    HandleReserve(Database& db, std::string counter, std::int64_t block = 1024);

    // The next number; throws StoreError when the mark cannot be stored.
    std::int64_t next();

private:
    Database& db_;
    std::string counter_;
    std::int64_t block_;
    std::int64_t last_ = 0;
    std::int64_t reserved_ = 0;
};

}  // namespace ksd::store

#endif
