#ifndef KSTEST_WAIT_UNTIL_H
#define KSTEST_WAIT_UNTIL_H

// The one bounded wait of the tests: polls a condition until it holds or the
// deadline passes. The deadline only keeps a broken program from hanging a
// test; it is never a measure of speed.

#include <chrono>
#include <thread>

namespace kstest {

template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace kstest

#endif
