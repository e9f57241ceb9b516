// Base of every receiver of pushed frames.
#include "OrvoNotificationCallback.h"

namespace OrvoNet {

OrvoNotificationCallback::OrvoNotificationCallback(int nId) : m_nId(nId) {}

OrvoNotificationCallback::~OrvoNotificationCallback() = default;

void OrvoNotificationCallback::callback(OrvoSmartPointer<OrvoConnection>& spConnection) {
    doCallback(spConnection);
    // Signalled only after a delivery completed, so a waiter sees its effects.
    set();
}

}  // namespace OrvoNet
