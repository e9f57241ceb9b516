#include "store/statement.h"

#include <sqlite3.h>

#include "store/store_error.h"

namespace ksd::store {

Statement::Statement(sqlite3* db, std::string_view sql) : db_(db), sql_(sql) {
    const int rc = sqlite3_prepare_v3(db_, sql_.data(), static_cast<int>(sql_.size()), SQLITE_PREPARE_PERSISTENT,
                                      &stmt_, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
        fail("prepare", rc);
    }
}

Statement::~Statement() { sqlite3_finalize(stmt_); }

void Statement::fail(const std::string& what, int code) const {
    throw StoreError("sqlite " + what + " failed (" + std::string(sqlite3_errmsg(db_)) + ") in: " + sql_, code);
}

Statement& Statement::bind(int index, std::int64_t value) {
    const int rc = sqlite3_bind_int64(stmt_, index, value);
    if (rc != SQLITE_OK) fail("bind", rc);
    return *this;
}

Statement& Statement::bind(int index, std::string_view text) {
    // SQLITE_TRANSIENT: the caller's buffer may go away before the step.
    const int rc = sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    if (rc != SQLITE_OK) fail("bind", rc);
    return *this;
}

bool Statement::step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    // Leave the statement reusable before reporting.
    sqlite3_reset(stmt_);
    fail("step", rc);
}

void Statement::run() {
    try {
        while (step()) {
        }
    } catch (...) {
        reset();
        throw;
    }
    reset();
}

void Statement::reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

std::int64_t Statement::columnInt(int index) const { return sqlite3_column_int64(stmt_, index); }

std::string Statement::columnText(int index) const {
    const auto* p = static_cast<const char*>(sqlite3_column_blob(stmt_, index));
    const int n = sqlite3_column_bytes(stmt_, index);
    return p != nullptr ? std::string(p, static_cast<std::size_t>(n)) : std::string();
}


}  // namespace ksd::store
