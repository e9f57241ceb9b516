#ifndef KSINTF_INTERNAL_H
#define KSINTF_INTERNAL_H

// Declarations shared by the library's units that are not part of its
// documented API. They stay exported (the Java bindings and tests use them)
// but are not installed.

#include <map>

#include "OrvoException.h"
#include "OrvoJobStatus.h"
#include "OrvoLibraryConnection.h"
#include "OrvoNotificationNetwork.h"
#include "OrvoObjectBase.h"
#include "OrvoResourceArbitration.h"
#include "OrvoSmartPointer.h"
#include "OrvoString.h"
#include "OrvoTaskScheduler.h"

// Registration without the reserved-prefix check, for the library's own families.
KSINTF_API int _OrvoNNRegisterForNotification(const char* pszEventName, PFNNNotificationCallback pfNotificationCallback,
                                              void* pContext);
KSINTF_API int MapNNExceptionCode(int errorCode);

// Per-family start and stop, run by the module's attach and detach.
KSINTF_API void KSIntfLibInitOrvoNNNotify();
KSINTF_API void KSIntfLibFinitOrvoNNNotify();
KSINTF_API void KSIntfLibInitOrvoJobStatus();
KSINTF_API void KSIntfLibFinitOrvoJobStatus();
KSINTF_API void KSIntfLibInitOrvoResourceArbitration();
KSINTF_API void KSIntfLibFinitOrvoResourceArbitration();

// Adapters registered with the notification network for the families' events.
KSINTF_API void OrvoTSNotificationCallback(const char* pszEventName, OrvoNNNotification* pNotification);
KSINTF_API void OrvoRANotificationCallback(const char* pszEventName, OrvoNNNotification* pNotification);
KSINTF_API void OrvoJSNotificationCallback(const char* pszEventName, OrvoNNNotification* pNotification);

// What a lock or job registration keeps alive: the caller's function. The
// notification network holds only a raw pointer to it (the registration's
// context); the family's map holds the reference.
class KSINTF_API RANotificationInfo : public OrvoSupport::OrvoObjectBase {
public:
    explicit RANotificationInfo(PFRANotificationCallback pfnCallback) : m_pfnCallback(pfnCallback) {}
    ~RANotificationInfo() override {}
    PFRANotificationCallback RACallback() const { return m_pfnCallback; }

private:
    PFRANotificationCallback m_pfnCallback;
};

class KSINTF_API JSNotificationInfo : public OrvoSupport::OrvoObjectBase {
public:
    explicit JSNotificationInfo(PFJSENotificationCallback pfnCallback) : m_pfnCallback(pfnCallback) {}
    ~JSNotificationInfo() override {}
    PFJSENotificationCallback JSCallback() const { return m_pfnCallback; }

private:
    PFJSENotificationCallback m_pfnCallback;
};

typedef OrvoSupport::OrvoSmartPointer<RANotificationInfo> RANotificationInfoSP;
typedef std::map<int, RANotificationInfoSP> RANotificationInfoMap;
typedef OrvoSupport::OrvoSmartPointer<JSNotificationInfo> JSNotificationInfoSP;
typedef std::map<int, JSNotificationInfoSP> JSNotificationInfoMap;

// The families' registration maps, created on first use, unguarded.
KSINTF_API RANotificationInfoMap* getRANotificationInfoByHandleMap();
KSINTF_API JSNotificationInfoMap* getJSNotificationInfoByHandleMap();

namespace KSInterface {

// A failed exchange becomes minus its code, logged at level 4 under the
// calling function's name.
int failedExchange(const char* pszFunction, const OrvoSupport::OrvoException& e);

// Reads the event code that a family event carries in the first 4 bytes of
// its payload (native order). A shorter payload is logged and refused.
bool familyEventCode(const char* pszFamily, const OrvoNNNotification* pNotification, int& nCode);

// The lock and job families register and unregister alike: register the
// adapter with the info as context and keep the info in the family's map
// under the handle; forget it only once the daemon accepted the unregistration.
template <class Info, class PFN>
int registerFamilyCallback(std::map<int, OrvoSupport::OrvoSmartPointer<Info>>& map,
                           const OrvoSupport::OrvoString& sEventName, PFNNNotificationCallback pfnAdapter, PFN pfn) {
    OrvoSupport::OrvoSmartPointer<Info> spInfo(new Info(pfn));
    const int hRegistration = _OrvoNNRegisterForNotification(sEventName.c_str(), pfnAdapter, static_cast<Info*>(spInfo));
    if (hRegistration < 0) return hRegistration;
    map[hRegistration] = spInfo;
    return hRegistration;
}

template <class Map>
int unregisterFamilyCallback(Map& map, int hRegistration) {
    const int nResult = OrvoNNUnregisterForNotification(hRegistration);
    if (nResult != 0) return nResult;
    map.erase(hRegistration);
    return 0;
}

// The map behind a family's lazily created map pointer.
template <class Map>
Map* familyMap(Map*& pMap) {
    if (pMap == nullptr) pMap = new Map();
    return pMap;
}

// Frees a family's map at detach. The pointer is left as it is: no family
// call may follow the detach.
template <class Map>
void finitFamilyMap(Map* pMap) {
    if (pMap != nullptr) {
        pMap->clear();
        delete pMap;
    }
}

// One request whose reply is a single long, kept as its low 32 bits: open a
// connection to `pszEngine`, let `writeFields` send the fields, read the
// reply. An OrvoException becomes what `onFailure` makes of it.
template <class WriteFields, class OnFailure>
int longReplyRequest(const char* pszEngine, const char* pszCommand, WriteFields writeFields, OnFailure onFailure) {
    try {
        OrvoLibraryConnection connection{OrvoSupport::OrvoString(pszEngine), OrvoSupport::OrvoString(pszCommand)};
        writeFields(connection);
        return static_cast<int>(connection.receiveLong());
    } catch (OrvoSupport::OrvoException& e) {
        return onFailure(e);
    }
}

// waitForNotification of the Java lock, job and task classes: blocks for the
// registration's next event and answers the first native-order int of its
// payload (-1 once stopped), with level-9 records under `pszClass`.
KSINTF_API int waitForJavaEventCode(int hRegistration, const char* pszClass);

// How long a request waits for its reply: KSINTF_REPLY_TIMEOUT_MS, or -1 (no
// deadline) when it is unset, as a call without configuration never times out.
// A passed deadline fails the call with -110 and closes its socket.
KSINTF_API long replyTimeoutMs();
// Gives `connection`'s replies nMs (negative: no limit).
void setReplyDeadline(OrvoLibraryConnection& connection, long nMs);

}  // namespace KSInterface

#endif
