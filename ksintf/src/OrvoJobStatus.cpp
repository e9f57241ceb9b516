// Job status client: every job call is one request to "JobStatus" on a
// connection of its own; job events come through the notification network.

#include "OrvoJobStatus.h"

#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "OrvoException.h"
#include "OrvoLibraryConnection.h"

using KSInterface::OrvoLibraryConnection;
using OrvoSupport::OrvoException;
using OrvoSupport::OrvoString;

JSNotificationInfoMap* g_JSInfoByHandleMap = nullptr;

namespace {

const char* const kEngineName = "JobStatus";

// Job calls report a failed exchange as minus its code, without logging.
template <class WriteFields>
int jobRequest(const char* pszCommand, WriteFields writeFields) {
    return KSInterface::longReplyRequest(kEngineName, pszCommand, writeFields,
                                         [](const OrvoException& e) { return -e.getCode(); });
}

}  // namespace

JSNotificationInfoMap* getJSNotificationInfoByHandleMap() { return KSInterface::familyMap(g_JSInfoByHandleMap); }

void KSIntfLibInitOrvoJobStatus() {}

void KSIntfLibFinitOrvoJobStatus() { KSInterface::finitFamilyMap(g_JSInfoByHandleMap); }

extern "C" {

int OrvoJSECreateJob(const char* pszJobDescription, const char* pszJobName) {
    return jobRequest("TRVX_JS_CREATE", [&](OrvoLibraryConnection& c) {
        c.transfer(OrvoString(pszJobDescription));
        c.transfer(OrvoString(pszJobName));
    });
}

int OrvoJSELookupJob(const char* pszJobName) {
    return jobRequest("TRVX_JS_LOOKUP", [&](OrvoLibraryConnection& c) { c.transfer(OrvoString(pszJobName)); });
}

int OrvoJSEMapJobIDToAppID(int iJobID, int iTaskCount, int* aiAppID) {
    return jobRequest("TRVX_JS_MAP_JOB", [&](OrvoLibraryConnection& c) {
        c.transfer(static_cast<long>(iJobID));
        c.transfer(static_cast<long>(iTaskCount));
        for (int i = 0; i < iTaskCount; ++i) c.transfer(static_cast<long>(aiAppID[i]));
    });
}

int OrvoJSEDeleteJob(int iJobID) {
    return jobRequest("TRVX_JS_DELETE", [&](OrvoLibraryConnection& c) { c.transfer(static_cast<long>(iJobID)); });
}

int OrvoJSESetJobProgress(int iJobID, int iProgress) {
    return jobRequest("TRVX_JS_SET_PROGRESS", [&](OrvoLibraryConnection& c) {
        c.transfer(static_cast<long>(iJobID));
        c.transfer(static_cast<long>(iProgress));
    });
}

int OrvoJSEGetJobProgress(int iJobID) {
    return jobRequest("TRVX_JS_GET_PROGRESS",
                      [&](OrvoLibraryConnection& c) { c.transfer(static_cast<long>(iJobID)); });
}

int OrvoJSEGetAllJobProgress(int* piJobCount, OrvoJSEJob* aJobs) {
    // Deliberately a bare round trip: no job list travels back.
    (void)piJobCount;
    (void)aJobs;
    return jobRequest("TRVX_JS_GET_ALL_PROGRESS", [](OrvoLibraryConnection&) {});
}

int OrvoJSECancelJob(int iJobID) {
    return jobRequest("TRVX_JS_CANCEL", [&](OrvoLibraryConnection& c) { c.transfer(static_cast<long>(iJobID)); });
}

int OrvoJSERegisterForNotification(const char* pszJobName, PFJSENotificationCallback pfNotificationCallback) {
    return KSInterface::registerFamilyCallback<JSNotificationInfo>(*getJSNotificationInfoByHandleMap(),
                                                                   KSInterface::JobStatusEventName(pszJobName),
                                                                   OrvoJSNotificationCallback, pfNotificationCallback);
}

int OrvoJSEUnregisterForNotification(int hRegistration) {
    return KSInterface::unregisterFamilyCallback(*getJSNotificationInfoByHandleMap(), hRegistration);
}

}  // extern "C"

void OrvoJSNotificationCallback(const char* pszEventName, OrvoNNNotification* pNotification) {
    (void)pszEventName;
    int nEvent = 0;
    if (!KSInterface::familyEventCode("OrvoJSNotificationCallback", pNotification, nEvent)) return;
    auto* pInfo = static_cast<JSNotificationInfo*>(pNotification->m_pContext);
    pInfo->JSCallback()(pNotification->m_pszData, static_cast<tOrvoJSEEvent>(nEvent));
}
