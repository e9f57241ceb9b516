#ifndef KSD_STORE_SCHEMA_H
#define KSD_STORE_SCHEMA_H

// The daemon's one state database and its schema versions. openStateDatabase
// opens <state dir>/ksd.db and upgrades it, step by step and in one
// transaction, to the newest version this daemon knows. A file written by a
// newer daemon is refused (StoreError) rather than guessed at.

#include <filesystem>
#include <memory>

#include "store/database.h"

namespace ksd::store {

inline constexpr const char* kDatabaseFileName = "ksd.db";

// The newest schema version (PRAGMA user_version) this daemon writes.
int latestSchemaVersion();
// Upgrades `db`; returns the version it had before (0 for a new file).
int migrate(Database& db);

// One connection per file in this process, shared by every service that asks
// for it (the first caller's settings hold). Its locking stays shared
// (locking_mode=EXCLUSIVE would save SQLite's fcntl calls per transaction):
// the job list is read on a worker thread through a read-only connection of
// its own, which an exclusively locked file would shut out. Like every
// connection, it is used on one thread only.
std::shared_ptr<Database> openStateDatabase(const std::filesystem::path& stateDir,
                                            Durability durability = Durability::Normal,
                                            std::chrono::milliseconds busyTimeout = std::chrono::milliseconds(2000));

}  // namespace ksd::store

#endif
