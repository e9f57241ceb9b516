#include "store/handle_reserve.h"

#include <utility>

#include "store/counters.h"

namespace ksd::store {

HandleReserve::HandleReserve(Database& db, std::string counter, std::int64_t block)
    : db_(db), counter_(std::move(counter)), block_(block) {
    // Everything up to the stored mark may have been handed out before.
    reserved_ = last_ = counterValue(db_, counter_);
}

std::int64_t HandleReserve::next() {
    if (last_ >= reserved_) {
        setCounter(db_, counter_, last_ + block_);
        reserved_ = last_ + block_;
    }
    return ++last_;
}

}  // namespace ksd::store
