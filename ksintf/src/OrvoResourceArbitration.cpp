// Named locks: lock and unlock are one "Arbiter" request each on a connection
// of their own; lock events come through the notification network.

#include "OrvoResourceArbitration.h"

#include "KSIntfInternal.h"
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

RANotificationInfoMap* getRANotificationInfoByHandleMap() { return KSInterface::familyMap(g_RAInfoByHandleMap); }

void KSIntfLibInitOrvoResourceArbitration() {}

void KSIntfLibFinitOrvoResourceArbitration() { KSInterface::finitFamilyMap(g_RAInfoByHandleMap); }

extern "C" {

long OrvoRAResourceLock(const char* pszResourceName, int nMilliSeconds) {
    try {
        OrvoLibraryConnection connection{OrvoString(kEngineName), OrvoString("TRVX_RA_LOCK")};
        // A lock wait adds its own time-out to the reply deadline; an endless one has none.
        const long nReplyMs = KSInterface::replyTimeoutMs();
        KSInterface::setReplyDeadline(
            connection, nMilliSeconds < 0 || nReplyMs < 0 ? -1 : nReplyMs + static_cast<long>(nMilliSeconds));
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
    return KSInterface::registerFamilyCallback<RANotificationInfo>(
        *getRANotificationInfoByHandleMap(), KSInterface::ResourceArbitrationEventName(pszResourceName),
        OrvoRANotificationCallback, pfNotificationCallback);
}

int OrvoRAUnregisterForNotification(int hRegistration) {
    return KSInterface::unregisterFamilyCallback(*getRANotificationInfoByHandleMap(), hRegistration);
}

}  // extern "C"

void OrvoRANotificationCallback(const char* pszEventName, OrvoNNNotification* pNotification) {
    (void)pszEventName;
    int nLockCode = 0;
    if (!KSInterface::familyEventCode("OrvoRANotificationCallback", pNotification, nLockCode)) return;
    auto* pInfo = static_cast<RANotificationInfo*>(pNotification->m_pContext);
    pInfo->RACallback()(pNotification->m_pszData, nLockCode);
}
