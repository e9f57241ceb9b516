#ifndef KSTEST_AWAY_FROM_MIDNIGHT_H
#define KSTEST_AWAY_FROM_MIDNIGHT_H

// For tests that compare their own idea of "today" with the library's: when
// local midnight is a few seconds away, wait until it has passed, so that
// both read the same date.

#include <chrono>
#include <ctime>
#include <thread>

namespace kstest {

inline void awayFromMidnight(int nMarginSeconds = 5) {
    const std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    const int nLeft = 24 * 60 * 60 - (t.tm_hour * 3600 + t.tm_min * 60 + t.tm_sec);
    if (nLeft <= nMarginSeconds) std::this_thread::sleep_for(std::chrono::seconds(nLeft + 1));
}

}  // namespace kstest

#endif
