#ifndef NOTIFICATION_NETWORK_CALLBACK_H
#define NOTIFICATION_NETWORK_CALLBACK_H

#include "OrvoNotificationNetwork.h"

#ifdef __cplusplus

#include "OrvoNotificationCallback.h"

namespace KSInterface {

using OrvoNet::OrvoConnection;
using OrvoSupport::OrvoSmartPointer;
using OrvoSupport::OrvoString;

// One subscription to the notification network. The callback sink hands it
// each pushed notification (sender, event name, XML text, payload length and
// bytes); it keeps the last one and calls the subscriber's function with it.
class KSINTF_API NotificationNetworkCallback : public OrvoNet::OrvoNotificationCallback {
public:
    // Takes a fresh id from the library singleton's callback container.
    explicit NotificationNetworkCallback(const OrvoString& eventName);
    ~NotificationNetworkCallback() override;

    void setCallback(PFNNNotificationCallback fn, void* context);

    void setEventName(const OrvoString& sEventName);
    const OrvoString& getEventName();
    void setXmlData(OrvoString sXmlData);
    OrvoString getXmlData();
    // Takes the buffer as it is; only the last one is freed (by the destructor).
    void setProducerData(long nLength, void* pData);
    const void* getProducerData();
    long getProducerDataLen();

    void doCallback(OrvoSmartPointer<OrvoConnection>& conn) override;

private:
    NotificationNetworkCallback(const NotificationNetworkCallback&) = delete;
    NotificationNetworkCallback& operator=(const NotificationNetworkCallback&) = delete;

    OrvoString m_sNNEventName;
    PFNNNotificationCallback m_pfnCallback;
    OrvoString m_sXmlData;
    void* m_vProducerData;
    long m_ProducerDataLen;
    void* m_pvContext;
};

}  // namespace KSInterface

#endif  // __cplusplus

#endif
