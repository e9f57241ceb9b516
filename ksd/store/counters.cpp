#include "store/counters.h"

namespace ksd::store {

std::int64_t counterValue(Database& db, std::string_view name) {
    db.cached("INSERT OR IGNORE INTO counters(name, value) VALUES (?1, 0)").bind(1, name).run();
    auto& read = db.cached("SELECT value FROM counters WHERE name = ?1");
    read.bind(1, name);
    const std::int64_t value = read.step() ? read.columnInt(0) : 0;
    read.reset();
    return value;
}

void setCounter(Database& db, std::string_view name, std::int64_t value) {
    db.cached("UPDATE counters SET value = ?1 WHERE name = ?2").bind(1, value).bind(2, name).run();
}

}  // namespace ksd::store
