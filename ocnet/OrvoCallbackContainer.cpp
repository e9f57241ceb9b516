// The id table of callbacks, shared by registering threads and the sink thread.
#include "OrvoCallbackContainer.h"

namespace OrvoNet {

OrvoCallbackContainer::OrvoCallbackContainer() : m_nNextId(1) {}

OrvoCallbackContainer::~OrvoCallbackContainer() = default;

int OrvoCallbackContainer::getNewId() { return m_nNextId.fetch_add(1); }

bool OrvoCallbackContainer::add(const OrvoNotificationCallbackSP& spCallback) {
    if (!spCallback) return false;
    const int nId = spCallback->getId();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_callbacks.emplace(nId, spCallback).second) return false;
    // An id chosen by the caller must never come back from getNewId.
    int nNext = m_nNextId.load();
    while (nId >= nNext && !m_nNextId.compare_exchange_weak(nNext, nId + 1)) {
    }
    return true;
}

bool OrvoCallbackContainer::remove(int nId) {
    OrvoNotificationCallbackSP spDropped;  // released after the lock
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_callbacks.find(nId);
    if (it == m_callbacks.end()) return false;
    spDropped = it->second;
    m_callbacks.erase(it);
    return true;
}

OrvoNotificationCallbackSP OrvoCallbackContainer::lookup(int nId) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_callbacks.find(nId);
    return it == m_callbacks.end() ? OrvoNotificationCallbackSP() : it->second;
}

std::size_t OrvoCallbackContainer::size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_callbacks.size();
}

void OrvoCallbackContainer::clear() {
    std::map<int, OrvoNotificationCallbackSP> dropped;  // released after the lock
    std::lock_guard<std::mutex> lock(m_mutex);
    dropped.swap(m_callbacks);
}

}  // namespace OrvoNet
