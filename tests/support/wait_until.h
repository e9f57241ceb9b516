#ifndef KSTEST_WAIT_UNTIL_H
#define KSTEST_WAIT_UNTIL_H

#include <chrono>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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

// What callbacks note on threads of their own, for the test to wait on.
class Notes {
public:
    void add(std::string s) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_notes.push_back(std::move(s));
    }
    // Waits (bounded) until there are n, then takes all there are.
    std::vector<std::string> take(std::size_t n) {
        waitUntil([&] {
            std::lock_guard<std::mutex> lock(m_mutex);
            return m_notes.size() >= n;
        });
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_notes, {});
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_notes;
};

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
