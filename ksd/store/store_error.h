#ifndef KSD_STORE_STORE_ERROR_H
#define KSD_STORE_STORE_ERROR_H

// What every failure of the SQLite store throws: the message names the
// statement or file, and sqliteCode() keeps SQLite's result code.

#include <stdexcept>
#include <string>

namespace ksd::store {

class StoreError : public std::runtime_error {
public:
    StoreError(const std::string& message, int sqliteCode) : std::runtime_error(message), code_(sqliteCode) {}
    int sqliteCode() const { return code_; }

private:
    int code_;
};

}  // namespace ksd::store

#endif
