#ifndef ORVO_CALLBACK_CONTAINER_H
#define ORVO_CALLBACK_CONTAINER_H

#include <atomic>
#include <map>
#include <mutex>

#include "OrvoNotificationCallback.h"

namespace OrvoNet {

// Thread-safe table of callbacks by id; it holds one reference to each.
class ORVO_NET_API OrvoCallbackContainer {
public:
    OrvoCallbackContainer();
    ~OrvoCallbackContainer();

    // A fresh id, 1 or more, never returned twice by this container.
    int getNewId();
    // Adds under the callback's own id; false (table unchanged) if the id is taken.
    bool add(const OrvoNotificationCallbackSP& spCallback);
    // Drops the id's reference; false if there was none.
    bool remove(int nId);
    // The callback, or an empty pointer.
    OrvoNotificationCallbackSP lookup(int nId) const;
    std::size_t size() const;
    void clear();

private:
    OrvoCallbackContainer(const OrvoCallbackContainer&) = delete;
    OrvoCallbackContainer& operator=(const OrvoCallbackContainer&) = delete;
    mutable std::mutex m_mutex;
    std::map<int, OrvoNotificationCallbackSP> m_callbacks;
    std::atomic<int> m_nNextId;
};

}  // namespace OrvoNet

#endif
