#ifndef RESOURCE_ARBITRATION_CALLBACK_H
#define RESOURCE_ARBITRATION_CALLBACK_H

#include "OrvoResourceArbitration.h"

#ifdef __cplusplus

#include "OrvoNotificationCallback.h"

namespace KSInterface {

// A callback object for clients that register with the library connection
// themselves: each pushed lock event (short, short lock code, string) is
// handed to a plain C function with the resource name given at construction.
class KSINTF_API ResourceArbitrationCallback : public OrvoNet::OrvoNotificationCallback {
public:
    // Takes a fresh id from the library singleton's callback container.
    explicit ResourceArbitrationCallback(const OrvoSupport::OrvoString& sResourceName);
    ~ResourceArbitrationCallback() override;

    void setLockCode(int nLockCode) { m_nLockCode = nLockCode; }
    int getLockCode() const { return m_nLockCode; }
    void setCallback(PFRANotificationCallback pfnCallback) { m_pfnCallback = pfnCallback; }

    void doCallback(OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection>& spConnection) override;

private:
    ResourceArbitrationCallback();
    ResourceArbitrationCallback(const ResourceArbitrationCallback&);
    ResourceArbitrationCallback& operator=(const ResourceArbitrationCallback&);

    int m_nLockCode;
    OrvoSupport::OrvoString m_sResourceName;
    PFRANotificationCallback m_pfnCallback;
};

}  // namespace KSInterface

#endif
#endif
