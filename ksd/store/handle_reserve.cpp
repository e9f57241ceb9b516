#include "store/handle_reserve.h"

#include <utility>

namespace ksd::store {

HandleReserve::HandleReserve(Database& db, std::string counter, std::int64_t block)
    : db_(db), counter_(std::move(counter)), block_(block) {
    db_.cached("INSERT OR IGNORE INTO counters(name, value) VALUES (?1, 0)").bind(1, std::string_view(counter_)).run();
    auto& read = db_.cached("SELECT value FROM counters WHERE name = ?1");
    read.bind(1, std::string_view(counter_));
    // Everything up to the stored mark may have been handed out before.
    reserved_ = last_ = read.step() ? read.columnInt(0) : 0;
    read.reset();
}

std::int64_t HandleReserve::next() {
    if (last_ >= reserved_) {
        db_.cached("UPDATE counters SET value = ?1 WHERE name = ?2")
            .bind(1, last_ + block_)
            .bind(2, std::string_view(counter_))
            .run();
        reserved_ = last_ + block_;
    }
    return ++last_;
}

}  // namespace ksd::store
