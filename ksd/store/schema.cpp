#include "store/schema.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "OrvoLogging.h"
#include "store/store_error.h"

namespace ksd::store {

namespace {

// Step i brings a database from version i to version i + 1. Steps are never
// edited once shipped; a change is a new step.
const std::vector<const char*>& migrationSteps() {
    static const std::vector<const char*> steps = {
        // 0 -> 1: jobs, and the counters that keep ids from being reused.
        "CREATE TABLE counters ("
        "  name TEXT PRIMARY KEY,"
        "  value INTEGER NOT NULL"
        ") WITHOUT ROWID;"
        "CREATE TABLE jobs ("
        "  id INTEGER PRIMARY KEY,"
        "  name TEXT NOT NULL UNIQUE,"
        "  description TEXT NOT NULL,"
        "  progress INTEGER NOT NULL,"
        "  state INTEGER NOT NULL,"
        "  owner_uid INTEGER NOT NULL,"
        "  app_ids TEXT NOT NULL DEFAULT ''"
        ");"
        "INSERT INTO counters(name, value) VALUES ('last_job_id', 0);",
    };
    return steps;
}

}  // namespace

int latestSchemaVersion() { return static_cast<int>(migrationSteps().size()); }

int migrate(Database& db) {
    Transaction transaction(db);
    const int found = db.userVersion();
    const int latest = latestSchemaVersion();
    if (found > latest) {
        throw StoreError("database " + db.file().string() + " has schema version " + std::to_string(found) +
                             ", newer than this ksd knows (" + std::to_string(latest) + ")",
                         0);
    }
    for (int v = found; v < latest; ++v) db.exec(migrationSteps()[static_cast<std::size_t>(v)]);
    if (found != latest) db.setUserVersion(latest);
    transaction.commit();
    if (found != latest)
        ORVO_LOG(5, "ksd: database " << db.file().string() << " upgraded from schema " << found << " to " << latest);
    return found;
}

std::shared_ptr<Database> openStateDatabase(const std::filesystem::path& stateDir, Durability durability,
                                            std::chrono::milliseconds busyTimeout) {
    static std::mutex mutex;
    static std::map<std::filesystem::path, std::weak_ptr<Database>> open;
    const std::filesystem::path file = stateDir / kDatabaseFileName;
    std::lock_guard<std::mutex> lock(mutex);
    std::weak_ptr<Database>& slot = open[file.lexically_normal()];
    if (auto db = slot.lock()) return db;
    try {
        auto db = std::make_shared<Database>(file, durability, busyTimeout);
        migrate(*db);
        slot = db;
        return db;
    } catch (const StoreError& e) {
        // SQLITE_NOTADB, also as an extended code: say it in the operator's words.
        if ((e.sqliteCode() & 0xff) == 26)
            throw StoreError("state database " + file.string() + " is not a database", 26);
        throw;
    }
}

}  // namespace ksd::store
