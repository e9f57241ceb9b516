#include "services/arbiter/lock_store.h"

#include <fstream>
#include <sstream>

#include "store/schema.h"

namespace ksd {

LockStore::LockStore(const std::filesystem::path& stateDir) : db_(store::openStateDatabase(stateDir)) {
    // The arbiter's own table; IF NOT EXISTS keeps this idempotent.
    db_->exec(
        "CREATE TABLE IF NOT EXISTS locks ("
        "  handle INTEGER PRIMARY KEY, resource TEXT NOT NULL, is_unix INTEGER NOT NULL,"
        "  pid INTEGER NOT NULL, uid INTEGER NOT NULL, gid INTEGER NOT NULL, start_time INTEGER NOT NULL);");
    handles_ = std::make_unique<store::HandleReserve>(*db_, "last_lock_handle");
}

LockStore::~LockStore() = default;

std::vector<StoredLock> LockStore::loadAll() {
    std::vector<StoredLock> all;
    auto& s = db_->cached("SELECT handle, resource, is_unix, pid, uid, gid, start_time FROM locks ORDER BY handle");
    while (s.step()) {
        StoredLock lock;
        lock.handle = s.columnInt(0);
        lock.resource = s.columnText(1);
        lock.holder.isUnix = s.columnInt(2) != 0;
        lock.holder.pid = static_cast<pid_t>(s.columnInt(3));
        lock.holder.uid = static_cast<uid_t>(s.columnInt(4));
        lock.holder.gid = static_cast<gid_t>(s.columnInt(5));
        lock.startTime = static_cast<std::uint64_t>(s.columnInt(6));
        all.push_back(std::move(lock));
    }
    s.reset();
    return all;
}

void LockStore::put(const StoredLock& lock) {
    db_->cached(
           "INSERT OR REPLACE INTO locks(handle, resource, is_unix, pid, uid, gid, start_time)"
           " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)")
        .bind(1, lock.handle)
        .bind(2, std::string_view(lock.resource))
        .bind(3, std::int64_t{lock.holder.isUnix ? 1 : 0})
        .bind(4, static_cast<std::int64_t>(lock.holder.pid))
        .bind(5, static_cast<std::int64_t>(lock.holder.uid))
        .bind(6, static_cast<std::int64_t>(lock.holder.gid))
        .bind(7, static_cast<std::int64_t>(lock.startTime))
        .run();
}

void LockStore::erase(std::int64_t handle) {
    db_->cached("DELETE FROM locks WHERE handle = ?1").bind(1, handle).run();
}

std::uint64_t processStartTime(pid_t pid) {
    if (pid <= 0) return 0;
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The command name (field 2) may hold spaces and parentheses: count after the last ')'.
    const auto close = stat.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    for (int i = 3; i <= 22 && fields >> field; ++i)
        if (i == 22) return std::stoull(field);
    return 0;
}

}  // namespace ksd
