// Client of the daemon's notification network: subscribe, unsubscribe and
// publish. Publishing goes over the library's one shared connection.

#include "OrvoNotificationNetwork.h"

#include <cstddef>
#include <cstring>

#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "NotificationNetworkCallback.h"
#include "OrvoCriticalSection.h"
#include "OrvoException.h"
#include "OrvoLibraryConnection.h"
#include "OrvoLogging.h"
#include "OrvoProtocol.h"

using KSInterface::failedExchange;
using KSInterface::KSIntfLibrary;
using KSInterface::NotificationNetworkCallback;
using KSInterface::OrvoLibraryConnection;
using KSInterface::OrvoLibraryConnectionRequest;
using OrvoSupport::OrvoCriticalSection;
using OrvoSupport::OrvoCriticalSectionObject;
using OrvoSupport::OrvoException;
using OrvoSupport::OrvoSmartPointer;
using OrvoSupport::OrvoString;

// Serialises publications: they share one connection, one request at a time.
OrvoCriticalSectionObject* g_pNNNotifyCriticalSection = nullptr;

int MapNNExceptionCode(int errorCode) { return -errorCode; }

namespace {

const char* const kServiceName = "Notifier";
// Publishers always name themselves with this fixed address.
const char* const kSenderAddress = "udp:127.0.0.1:0";

}  // namespace

void KSIntfLibInitOrvoNNNotify() {
    if (g_pNNNotifyCriticalSection == nullptr) g_pNNNotifyCriticalSection = new OrvoCriticalSectionObject();
}

void KSIntfLibFinitOrvoNNNotify() {
    delete g_pNNNotifyCriticalSection;
    g_pNNNotifyCriticalSection = nullptr;
}

extern "C" KSINTF_API int OrvoNNRegisterForNotification(const char* pszEventName,
                                                        PFNNNotificationCallback pfNotificationCallback,
                                                        void* pContext) {
    // Through OrvoString so that a null name raises the standard logic error.
    const OrvoString sEventName(pszEventName);
    ORVO_LOG(9, "OrvoNNRegisterForNotification: event="
                    << "|" << sEventName << "| context=" << static_cast<const void*>(pContext));
    // The families' own event names are not open to public subscription.
    if (OrvoNet::Protocol::isReservedEventName(sEventName)) return -2;
    return _OrvoNNRegisterForNotification(pszEventName, pfNotificationCallback, pContext);
}

int _OrvoNNRegisterForNotification(const char* pszEventName, PFNNNotificationCallback pfNotificationCallback,
                                   void* pContext) {
    const OrvoString sEventName(pszEventName);
    ORVO_LOG(9, "_OrvoNNRegisterForNotification: event="
                    << "|" << sEventName << "| context=" << static_cast<const void*>(pContext));
    // Held from the start so that a registration that fails before the
    // container takes the callback does not leak it.
    OrvoSmartPointer<OrvoNet::OrvoNotificationCallback> spCallback;
    {
        NotificationNetworkCallback* pCallback = new NotificationNetworkCallback(sEventName);
        spCallback = pCallback;
        pCallback->setCallback(pfNotificationCallback, pContext);
    }
    try {
        // The sink listens before the request starts: a sink that cannot
        // listen fails the call at once, not half a request left unanswered.
        KSIntfLibrary::getInstance().getCallbackAddress();
        OrvoLibraryConnection connection(kServiceName, "TRVX_NN_REGISTER");
        connection.transfer(sEventName);
        const int handle = connection.registerCallback(spCallback);
        ORVO_LOG(9, "OrvoNNRegisterForNotification: handle=" << handle);
        return handle;
    } catch (OrvoException& e) {
        return failedExchange("_OrvoNNRegisterForNotification", e);
    }
}

extern "C" KSINTF_API int OrvoNNUnregisterForNotification(int hRegistration) {
    ORVO_LOG(9, "OrvoNNUnRegisterForNotification: handle=" << hRegistration);
    try {
        OrvoLibraryConnection connection(kServiceName, "TRVX_NN_UNREGISTER");
        return connection.unregisterCallback(hRegistration);
    } catch (OrvoException& e) {
        return failedExchange("OrvoNNUnregisterForNotification", e);
    }
}

extern "C" KSINTF_API int OrvoNNNotify(const char* pszEventName, OrvoNNNotification* pNotification) {
    OrvoCriticalSection lock(*g_pNNNotifyCriticalSection);
    // Both texts become strings before the request starts, so that a null one
    // raises the standard logic error without leaving half a request behind.
    const OrvoString sEventName(pszEventName);
    const OrvoString sXmlData(pNotification->m_pszData);
    ORVO_LOG(9, "OrvoNNNotify: event="
                    << "|" << sEventName << "|"
                    << " xmldata="
                    << "|" << sXmlData << "|"
                    << " bindatalen=" << pNotification->m_nDataLength);
    try {
        OrvoLibraryConnectionRequest request(KSIntfLibrary::getSharedLibraryConnection(), kServiceName,
                                             "TRVX_NN_NOTIFY");
        request.transfer(OrvoString(kSenderAddress));
        request.transfer(sEventName);
        request.transfer(sXmlData);
        request.transfer(pNotification->m_nDataLength);
        long status = 0;
        request.transfer(static_cast<const char*>(pNotification->m_pData), pNotification->m_nDataLength, &status);
        return static_cast<int>(request.receiveLong());
    } catch (OrvoException& e) {
        // The request has been ended by now: the exception left its scope.
        return failedExchange("OrvoNNNotify", e);
    }
}

namespace KSInterface {

int failedExchange(const char* pszFunction, const OrvoException& e) {
    const int rc = MapNNExceptionCode(e.getCode());
    ORVO_LOG(4, pszFunction << ": exception connecting to server: message = |" << e.getMessage()
                            << "|, error code = " << e.getCode() << ", returning code = " << rc);
    return rc;
}

bool familyEventCode(const char* pszFamily, const OrvoNNNotification* pNotification, int& nCode) {
    if (pNotification->m_pData == nullptr || pNotification->m_nDataLength < static_cast<long>(sizeof nCode)) {
        ORVO_LOG(4, pszFamily << ": event payload of " << pNotification->m_nDataLength
                              << " bytes has no event code, dropped");
        return false;
    }
    std::memcpy(&nCode, pNotification->m_pData, sizeof nCode);
    return true;
}

}  // namespace KSInterface
