#include "inbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <system_error>

namespace ksctl {

Inbox& Inbox::instance() {
    // Deliberately leaked (see the header); reachable through this pointer to the end.
    static Inbox* inbox = new Inbox();
    return *inbox;
}

Inbox::Inbox() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Inbox::deliver(const char* eventName, OrvoNNNotification* notification) {
    auto* inbox = static_cast<Inbox*>(notification->m_pContext);
    Notification n;
    n.received = std::chrono::system_clock::now();
    n.event = eventName ? eventName : "";
    n.text = notification->m_pszData ? notification->m_pszData : "";
    if (notification->m_pData && notification->m_nDataLength > 0) {
        n.payload.assign(static_cast<const char*>(notification->m_pData),
                         static_cast<std::size_t>(notification->m_nDataLength));
    }
    inbox->push(std::move(n));
}

void Inbox::push(Notification n) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pending_.push_back(std::move(n));
    }
    std::uint64_t one = 1;
    // A full counter still leaves the fd readable, which is all the reader needs.
    [[maybe_unused]] ssize_t written = ::write(fd_, &one, sizeof one);
}

std::vector<Notification> Inbox::takeAll() {
    std::uint64_t count = 0;
    [[maybe_unused]] ssize_t got = ::read(fd_, &count, sizeof count);
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Notification> out;
    out.swap(pending_);
    return out;
}

}  // namespace ksctl
