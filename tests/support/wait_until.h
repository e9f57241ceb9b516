#ifndef KSTEST_WAIT_UNTIL_H
#define KSTEST_WAIT_UNTIL_H

#include <chrono>
#include <ctime>
#include <thread>

namespace kstest {

// The one bounded wait of the tests: polls a condition until it holds or the
// deadline passes. The deadline only keeps a broken program from hanging a
// test; it is never a measure of speed.
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// For tests that compare their own idea of "today" with the library's: when
// local midnight is a few seconds away, waits until it has passed.
inline void awayFromMidnight(int nMarginSeconds = 5) {
    const std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    const int nLeft = 24 * 60 * 60 - (t.tm_hour * 3600 + t.tm_min * 60 + t.tm_sec);
    if (nLeft <= nMarginSeconds) std::this_thread::sleep_for(std::chrono::seconds(nLeft + 1));
}

}  // namespace kstest

#endif
