#include "store/database.h"

#include <sqlite3.h>

#include "OrvoLogging.h"
#include "store/store_error.h"

namespace ksd::store {

void Database::open(int flags, std::chrono::milliseconds busyTimeout, const char* purpose) {
    const int rc = sqlite3_open_v2(file_.c_str(), &db_, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        const std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
        sqlite3_close(db_);
        db_ = nullptr;
        throw StoreError("cannot open database " + file_.string() + purpose + ": " + message, rc);
    }
    sqlite3_busy_timeout(db_, static_cast<int>(busyTimeout.count()));
    sqlite3_extended_result_codes(db_, 1);
}

template <typename Steps>
void Database::setUp(Steps steps) {
    try {
        steps();
    } catch (...) {
        sqlite3_close(db_);
        db_ = nullptr;
        throw;
    }
}

Database::Database(const std::filesystem::path& file, Durability durability, std::chrono::milliseconds busyTimeout)
    : file_(file) {
    open(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, busyTimeout, "");
    setUp([&] {
        // Reading the journal mode also proves the file is a database.
        const std::string mode = pragma("journal_mode=WAL");
        if (mode != "wal") throw StoreError("database " + file_.string() + " refuses WAL mode (" + mode + ")", 0);
        exec(durability == Durability::Full ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
        exec("PRAGMA foreign_keys=ON");
    });
}

Database::Database(const std::filesystem::path& file, ReadOnly) : file_(file) {
    open(SQLITE_OPEN_READONLY, std::chrono::milliseconds(2000), " to read");
    setUp([&] {
        // Without WAL a reader would block the writer on the loop.
        const std::string mode = pragma("journal_mode");
        if (mode != "wal") throw StoreError("database " + file_.string() + " is not in WAL mode (" + mode + ")", 0);
    });
}

Database::~Database() {
    statements_.clear();
    if (db_ != nullptr && sqlite3_close(db_) != SQLITE_OK) {
        ORVO_LOG(1, "ksd: closing database " << file_.string() << " failed: " << sqlite3_errmsg(db_));
    }
}

void Database::exec(std::string_view sql) {
    const std::string text(sql);
    char* error = nullptr;
    const int rc = sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        const std::string message = error != nullptr ? error : sqlite3_errstr(rc);
        sqlite3_free(error);
        throw StoreError("sqlite exec failed (" + message + ") in: " + text, rc);
    }
}

Statement& Database::cached(std::string_view sql) {
    auto it = statements_.find(std::string(sql));
    if (it == statements_.end()) {
        it = statements_.emplace(std::string(sql), std::make_unique<Statement>(db_, sql)).first;
    } else {
        it->second->reset();
    }
    return *it->second;
}

std::string Database::pragma(std::string_view name) {
    Statement s(db_, "PRAGMA " + std::string(name));
    return s.step() ? s.columnText(0) : std::string();
}

int Database::userVersion() { return std::stoi(pragma("user_version")); }

void Database::setUserVersion(int version) { exec("PRAGMA user_version=" + std::to_string(version)); }

Transaction::Transaction(Database& db) : db_(db) { db_.exec("BEGIN IMMEDIATE"); }

Transaction::~Transaction() {
    if (!open_) return;
    try {
        db_.exec("ROLLBACK");
    } catch (const StoreError& e) {
        // SQLite may have rolled back by itself already (e.g. on a full disk).
        ORVO_LOG(9, "ksd: rollback: " << e.what());
    }
}

void Transaction::commit() {
    db_.exec("COMMIT");
    open_ = false;
}

}  // namespace ksd::store
