#ifndef KSD_UTIL_WORK_THREAD_H
#define KSD_UTIL_WORK_THREAD_H

// One thread that handles queued items one at a time, in the order pushed,
// so blocking work stays off the event loop. stop() (or destruction) joins
// it; items not begun by then are dropped unhandled.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace ksd {

template <class Item>
class WorkThread {
public:
    explicit WorkThread(std::function<void(Item&)> handle) : handle_(std::move(handle)), thread_([this] { loop(); }) {}
    ~WorkThread() { stop(); }
    WorkThread(const WorkThread&) = delete;
    WorkThread& operator=(const WorkThread&) = delete;

    void push(Item item) {
        {
            std::lock_guard lock(mutex_);
            queue_.push_back(std::move(item));
        }
        wake_.notify_one();
    }

    // For owners whose handler uses state they tear down before their members.
    void stop() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        if (thread_.joinable()) thread_.join();
    }

private:
    void loop() {
        for (;;) {
            Item item;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
                if (stopping_) return;
                item = std::move(queue_.front());
                queue_.pop_front();
            }
            handle_(item);
        }
    }

    std::function<void(Item&)> handle_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Item> queue_;
    bool stopping_ = false;
    std::thread thread_;  // last: starts once everything above is made
};

}  // namespace ksd

#endif
