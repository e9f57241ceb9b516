#ifndef ORVO_NOTIFICATION_CALLBACK_H
#define ORVO_NOTIFICATION_CALLBACK_H

#include "OrvoConnection.h"
#include "OrvoEvent.h"
#include "OrvoSmartPointer.h"

namespace OrvoNet {

using OrvoSupport::OrvoSmartPointer;

// One registered receiver of pushed frames, known to the callback sink by its
// id. The sink calls callback() with a connection over the frame's payload.
class ORVO_NET_API OrvoNotificationCallback : public OrvoSupport::OrvoEvent, public OrvoSupport::OrvoObjectBase {
public:
    explicit OrvoNotificationCallback(int nId);
    ~OrvoNotificationCallback() override;

    // Runs doCallback, then signals the event so that a thread may wait for deliveries.
    virtual void callback(OrvoSmartPointer<OrvoConnection>& spConnection);
    // Reads one pushed payload from the connection.
    virtual void doCallback(OrvoSmartPointer<OrvoConnection>& spConnection) = 0;

    int getId() const { return m_nId; }

private:
    OrvoNotificationCallback(const OrvoNotificationCallback&) = delete;
    OrvoNotificationCallback& operator=(const OrvoNotificationCallback&) = delete;
    int m_nId;
};

using OrvoNotificationCallbackSP = OrvoSmartPointer<OrvoNotificationCallback>;

}  // namespace OrvoNet

#endif
