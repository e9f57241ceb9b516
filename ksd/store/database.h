#ifndef KSD_STORE_DATABASE_H
#define KSD_STORE_DATABASE_H

// One SQLite database file, opened in WAL mode for the event loop's thread
// only. Statements are prepared once and cached by their text; Transaction
// groups writes and rolls back unless committed. Throws StoreError.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "store/statement.h"

struct sqlite3;

namespace ksd::store {

// How hard a commit tries to reach the disk. Normal (WAL, synchronous=NORMAL):
// a commit is a write() to the log, no fsync, so it survives the daemon being
// killed (kill -9 included) but the last commits may be lost on power failure;
// the database stays consistent either way. Full: an fsync per commit.
enum class Durability { Normal, Full };

class Database {
public:
    // Two daemons wrongly sharing one state directory wait `busyTimeout` for
    // each other's short transactions instead of failing at once.
    explicit Database(const std::filesystem::path& file, Durability durability = Durability::Normal,
                      std::chrono::milliseconds busyTimeout = std::chrono::milliseconds(2000));
    // A second, read-only connection to a database another connection keeps
    // in WAL mode: it reads the last commit while that one writes, so it may
    // serve another thread (one at a time).
    struct ReadOnly {};
    Database(const std::filesystem::path& file, ReadOnly);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Runs statements without parameters or results (schema, pragmas).
    void exec(std::string_view sql);
    // The statement for `sql`, prepared on first use, reset and unbound.
    Statement& cached(std::string_view sql);
    // PRAGMA user_version: the schema version stored in the file.
    int userVersion();
    void setUserVersion(int version);
    // The value of a one-value pragma, as text (for tests and diagnostics).
    std::string pragma(std::string_view name);

    const std::filesystem::path& file() const { return file_; }
    sqlite3* handle() { return db_; }

private:
    // Opens file_ (one thread at a time per connection, so SQLite need not
    // lock for us); throws StoreError naming the file, `purpose` appended.
    void open(int flags, std::chrono::milliseconds busyTimeout, const char* purpose);
    // Runs the first statements of a fresh connection; closes it if one throws.
    template <typename Steps>
    void setUp(Steps steps);

    sqlite3* db_ = nullptr;
    std::filesystem::path file_;
    std::unordered_map<std::string, std::unique_ptr<Statement>> statements_;
};

// BEGIN IMMEDIATE at construction (the write lock is taken at once, so a
// commit never fails for a lock upgrade), ROLLBACK at destruction unless
// commit() was called.
class Transaction {
public:
    explicit Transaction(Database& db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Database& db_;
    bool open_ = true;
};

}  // namespace ksd::store

#endif
