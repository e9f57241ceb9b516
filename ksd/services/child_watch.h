#ifndef KSD_SERVICES_CHILD_WATCH_H
#define KSD_SERVICES_CHILD_WATCH_H

// Child processes watched on the loop through their pidfds: when one ends it
// is reaped and its exit status handed to its callback, on the loop. The loop
// never waits for a child, and no child is left a zombie.

#include <signal.h>
#include <sys/types.h>

#include <asio/io_context.hpp>
#include <functional>
#include <memory>
#include <unordered_map>

namespace ksd {

class ChildWatch {
public:
    // The child's waitid() status; si_pid is 0 when it could not be read.
    using OnExit = std::function<void(const siginfo_t&)>;

    explicit ChildWatch(asio::io_context& io);
    // Stops watching; children still running go on (see killAll).
    ~ChildWatch();
    ChildWatch(const ChildWatch&) = delete;
    ChildWatch& operator=(const ChildWatch&) = delete;

    // Watches a child of this process. False, errno set, when it cannot be
    // watched: it is then killed and reaped, and `onExit` never runs.
    bool watch(pid_t pid, OnExit onExit);
    // Kills and reaps every child still watched; their callbacks never run.
    void killAll();
    std::size_t size() const { return children_.size(); }

private:
    struct Child;
    void finished(pid_t pid);

    asio::io_context& io_;
    std::unordered_map<pid_t, std::unique_ptr<Child>> children_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();
};

}  // namespace ksd

#endif
