#ifndef KSD_SERVICES_ARBITER_LOCK_STORE_H
#define KSD_SERVICES_ARBITER_LOCK_STORE_H

// The lock table as stored in the state database: who holds what, with the
// holder's process start time so that a reused pid is never taken for the
// holder after a restart; and the mark that keeps handles from being reused.
// Every change is written before the reply. Throws StoreError.

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "protocol/request.h"
#include "store/database.h"
#include "store/handle_reserve.h"

namespace ksd {

struct StoredLock {
    std::int64_t handle = 0;
    std::string resource;
    PeerInfo holder;
    std::uint64_t startTime = 0;  // the holder's, in clock ticks since boot; 0 unknown
};

class LockStore {
public:
    explicit LockStore(const std::filesystem::path& stateDir);
    ~LockStore();

    std::int64_t nextHandle() { return handles_->next(); }
    std::vector<StoredLock> loadAll();
    void put(const StoredLock& lock);
    void erase(std::int64_t handle);

private:
    std::shared_ptr<store::Database> db_;
    std::unique_ptr<store::HandleReserve> handles_;
};

// Start time of process `pid` (field 22 of /proc/<pid>/stat); 0 when it is gone.
std::uint64_t processStartTime(pid_t pid);

}  // namespace ksd

#endif
