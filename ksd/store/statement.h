#ifndef KSD_STORE_STATEMENT_H
#define KSD_STORE_STATEMENT_H

// One prepared SQLite statement, owned. Bind parameters (from 1), step
// through the rows, read columns (from 0); reset() makes it reusable and
// clears the bindings. Throws StoreError on any SQLite failure.

#include <cstdint>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace ksd::store {

class Statement {
public:
    Statement(sqlite3* db, std::string_view sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, std::int64_t value);
    // Bytes are stored as given (no terminator needed, any byte allowed).
    Statement& bind(int index, std::string_view text);

    // True when a row is ready; false when the statement is done.
    bool step();
    // Steps a statement that returns no row (INSERT, UPDATE, ...) and resets it.
    void run();
    void reset();

    std::int64_t columnInt(int index) const;
    std::string columnText(int index) const;

    const std::string& sql() const { return sql_; }

private:
    [[noreturn]] void fail(const std::string& what, int code) const;

    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
    std::string sql_;
};

}  // namespace ksd::store

#endif
