#ifndef JOB_STATUS_CALLBACK_H
#define JOB_STATUS_CALLBACK_H

#include "OrvoJobStatus.h"

#ifdef __cplusplus

#include "OrvoNotificationCallback.h"

namespace KSInterface {

// A callback object for clients that register with the library connection
// themselves: each pushed job event (short, short event, string job text)
// is handed to a plain C function with the text just read.
class KSINTF_API JobStatusCallback : public OrvoNet::OrvoNotificationCallback {
public:
    // Takes a fresh id from the library singleton's callback container.
    explicit JobStatusCallback(const OrvoSupport::OrvoString& sJobName);
    ~JobStatusCallback() override;

    void setEvent(tOrvoJSEEvent event) { m_jobEvent = event; }
    tOrvoJSEEvent getEvent() const { return m_jobEvent; }
    void setCallback(PFJSENotificationCallback pfnCallback) { m_pfnCallback = pfnCallback; }

    void doCallback(OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection>& spConnection) override;

private:
    JobStatusCallback();
    JobStatusCallback(const JobStatusCallback&);
    JobStatusCallback& operator=(const JobStatusCallback&);

    OrvoSupport::OrvoString m_sJobName;
    tOrvoJSEEvent m_jobEvent;
    PFJSENotificationCallback m_pfnCallback;
};

}  // namespace KSInterface

#endif
#endif
