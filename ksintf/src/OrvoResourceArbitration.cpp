// Named locks: lock and unlock are one "Arbiter" request each on a connection
// of their own; lock events come through the notification network.

#include "OrvoResourceArbitration.h"

#include <cstring>

#include "KSIntfLibrary.h"
#include "OrvoException.h"
#include "OrvoLibraryConnection.h"

using KSInterface::OrvoLibraryConnection;
using OrvoSupport::OrvoException;
using OrvoSupport::OrvoString;

RANotificationInfoMap* g_RAInfoByHandleMap = nullptr;

namespace {
const char* const kEngineName = "Arbiter";
}

RANotificationInfoMap* getRANotificationInfoByHandleMap() {
    if (g_RAInfoByHandleMap == nullptr) g_RAInfoByHandleMap = new RANotificationInfoMap();
    return g_RAInfoByHandleMap;
}

void KSIntfLibInitOrvoResourceArbitration() {}

void KSIntfLibFinitOrvoResourceArbitration() {
    // The pointer is left as it is: no family call may follow the detach.
    if (g_RAInfoByHandleMap != nullptr) {
        g_RAInfoByHandleMap->clear();
        delete g_RAInfoByHandleMap;
    }
}

extern "C" {

long OrvoRAResourceLock(const char* pszResourceName, int nMilliSeconds) {
    try {
        OrvoLibraryConnection connection{OrvoString(kEngineName), OrvoString("TRVX_RA_LOCK")};
        connection.transfer(OrvoString(pszResourceName));
        connection.transfer(static_cast<long>(nMilliSeconds));
        // Handles fit in 32 bits: narrow, then widen with the sign.
        return static_cast<long>(static_cast<int>(connection.receiveLong()));
    } catch (OrvoException& e) {
        return -static_cast<long>(e.getCode());
    }
}

int OrvoRAResourceUnlock(long hResourceLock) {
    try {
        OrvoLibraryConnection connection{OrvoString(kEngineName), OrvoString("TRVX_RA_UNLOCK")};
        // All 64 bits go out as given, unlike the narrowed lock reply.
        connection.transfer(hResourceLock);
        return static_cast<int>(connection.receiveLong());
    } catch (OrvoException& e) {
        return -e.getCode();
    }
}

int OrvoRARegisterForNotification(const char* pszResourceName, PFRANotificationCallback pfNotificationCallback) {
    RANotificationInfoSP spInfo(new RANotificationInfo(pfNotificationCallback));
    const OrvoString sEventName = KSInterface::ResourceArbitrationEventName(pszResourceName);
    const int hRegistration = _OrvoNNRegisterForNotification(sEventName.c_str(), OrvoRANotificationCallback,
                                                             static_cast<RANotificationInfo*>(spInfo));
    if (hRegistration < 0) return hRegistration;
    (*getRANotificationInfoByHandleMap())[hRegistration] = spInfo;
    return hRegistration;
}

int OrvoRAUnregisterForNotification(int hRegistration) {
    const int nResult = OrvoNNUnregisterForNotification(hRegistration);
    if (nResult != 0) return nResult;
    getRANotificationInfoByHandleMap()->erase(hRegistration);
    return 0;
}

}  // extern "C"

void OrvoRANotificationCallback(const char* pszEventName, OrvoNNNotification* pNotification) {
    (void)pszEventName;
    auto* pInfo = static_cast<RANotificationInfo*>(pNotification->m_pContext);
    int nLockCode;
    std::memcpy(&nLockCode, pNotification->m_pData, sizeof(nLockCode));
    pInfo->RACallback()(pNotification->m_pszData, nLockCode);
}
