#ifndef KSCTL_INBOX_H
#define KSCTL_INBOX_H

// Hands notifications from libksintf's callback thread to ksctl's main thread, copied,
// with an eventfd that becomes readable while any wait. Never destroyed: the library
// may still call back after an unregistration has been answered.

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "OrvoNotificationNetwork.h"

namespace ksctl {

struct Notification {
    std::string event;
    std::string text;
    std::string payload;  // raw bytes
    // When it reached ksctl: the wire carries no time of its own.
    std::chrono::system_clock::time_point received{};
};

class Inbox {
public:
    static Inbox& instance();

    // The function to register with OrvoNNRegisterForNotification, with &instance() as context.
    static void deliver(const char* eventName, OrvoNNNotification* notification);

    // Readable (poll POLLIN) while notifications are waiting.
    int fd() const { return fd_; }

    // Everything that arrived, in arrival order; clears the inbox and the fd's readiness.
    std::vector<Notification> takeAll();

private:
    Inbox();
    void push(Notification n);

    int fd_;
    std::mutex mutex_;
    std::vector<Notification> pending_;
};

}  // namespace ksctl

#endif
