// Start and stop of libksintf, and the event-name builders of the families.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "ModuleData.h"
#include "OrvoLibraryConnection.h"
#include "OrvoLogging.h"
#include "OrvoProtocol.h"

using OrvoSupport::OrvoString;

// The one module object of the library. Its construction at load attaches
// the library, its destruction at unload detaches it; both are counted by
// ModuleData so that hosts driving entry()/exit() themselves do no double work.
class Module : public OrvoSupport::ModuleData {
public:
    explicit Module(bool bAutoInit) : ModuleData(bAutoInit) { autoAttach(); }
    ~Module() override { autoDetach(); }

    void attach() override;
    void detach() override;
};

void Module::attach() {
    KSIntfLibInitOrvoNNNotify();
    KSIntfLibInitOrvoJobStatus();
    KSIntfLibInitOrvoResourceArbitration();
}

void Module::detach() {
    ORVO_LOG(9, "ksintf::Module::detach: entering");
    // The shared connection goes first: deleting it ends a request still open on it.
    KSInterface::KSIntfLibrary::deleteSharedLibraryConnection();
    KSInterface::KSIntfLibrary::deleteInstance();
    KSIntfLibFinitOrvoResourceArbitration();
    KSIntfLibFinitOrvoJobStatus();
    KSIntfLibFinitOrvoNNNotify();
    ORVO_LOG(9, "ksintf::Module::detach: exiting");
}

Module g_ModuleData(true);

extern "C" KSINTF_API void KSIntfInitModuleData() {
    ORVO_LOG(9, "KSIntfInitModuleData: entering");
    OrvoSupport::ModuleData::entry();
    ORVO_LOG(9, "KSIntfInitModuleData: exiting");
}

extern "C" KSINTF_API void KSIntfFinitModuleData() {
    ORVO_LOG(9, "KSIntfFinitModuleData: entering");
    OrvoSupport::ModuleData::exit();
    ORVO_LOG(9, "KSIntfFinitModuleData: exiting");
}

namespace KSInterface {

OrvoString TaskSchedulerEventName(int hTask) {
    OrvoString sName(OrvoNet::Protocol::kTaskEventPrefix);
    char szHandle[20];
    std::snprintf(szHandle, sizeof(szHandle), "%d", hTask);
    sName.append(szHandle);
    sName.append("$");
    return sName;
}

OrvoString ResourceArbitrationEventName(const char* pszResourceName) {
    OrvoString sName(OrvoNet::Protocol::kLockEventPrefix);
    // Through OrvoString so that a null name raises the standard logic error.
    sName.append(OrvoString(pszResourceName));
    sName.append("$");
    return sName;
}

OrvoString JobStatusEventName(const char* pszJobName) {
    OrvoString sName(OrvoNet::Protocol::kJobEventPrefix);
    sName.append(OrvoString(pszJobName));
    sName.append("$");
    return sName;
}

}  // namespace KSInterface

// The Java notification container: per registration a queue filled on the
// callback thread and drained by a Java thread.
namespace KSInterface {

using OrvoSupport::OrvoCriticalSection;

OrvoJavaNotificationCallbackContainer* OrvoJavaNotificationCallbackContainer::m_Instance = nullptr;

OrvoJavaNotification::OrvoJavaNotification(const char* pszEventName, OrvoNNNotification& notification)
    : m_NotificationData(), m_sEventName(pszEventName) {
    char* pData = new char[notification.m_nDataLength];
    if (notification.m_nDataLength > 0) std::memcpy(pData, notification.m_pData, notification.m_nDataLength);
    m_NotificationData.m_pData = pData;
    m_NotificationData.m_nDataLength = notification.m_nDataLength;
    const int nText = static_cast<int>(std::strlen(notification.m_pszData)) + 1;
    char* pszText = new char[nText];
    std::strncpy(pszText, notification.m_pszData, nText);
    pszText[nText - 1] = 0;
    m_NotificationData.m_pszData = pszText;
}

OrvoJavaNotification::~OrvoJavaNotification() {
    if (m_NotificationData.m_pData != nullptr) delete[] static_cast<char*>(m_NotificationData.m_pData);
    if (m_NotificationData.m_pszData != nullptr) delete[] const_cast<char*>(m_NotificationData.m_pszData);
    ORVO_LOG(9, "~OrvoJavaNotification");
}

OrvoJavaNotificationCallbackContainer& OrvoJavaNotificationCallbackContainer::getInstance() {
    if (m_Instance == nullptr) m_Instance = new OrvoJavaNotificationCallbackContainer();
    return *m_Instance;
}

void OrvoJavaNotificationCallbackContainer::deleteInstance() {
    // The pointer is left as it is: nothing in the library calls this.
    if (m_Instance != nullptr) delete m_Instance;
}

bool OrvoJavaNotificationCallbackContainer::add(int hRegistration,
                                                OrvoJavaNotificationCallbackQueueSP& spCallbackQueue) {
    OrvoCriticalSection lock(m_Mutex);
    const bool bInserted = m_Container.insert(ContainerMap::value_type(hRegistration, spCallbackQueue)).second;
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::add(" << hRegistration << "): result=" << bInserted);
    return bInserted;
}

bool OrvoJavaNotificationCallbackContainer::remove(int hRegistration) {
    OrvoCriticalSection lock(m_Mutex);
    if (m_Container.erase(hRegistration) > 0) {
        ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::remove(" << hRegistration
                                                                      << "): found (and erased) registration");
        return true;
    }
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::remove(" << hRegistration << "): could not find registration");
    return false;
}

OrvoJavaNotificationCallbackQueueSP OrvoJavaNotificationCallbackContainer::lookup(int hRegistration) {
    OrvoCriticalSection lock(m_Mutex);
    ContainerMap::iterator it = m_Container.find(hRegistration);
    if (it != m_Container.end()) {
        ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::lookup(" << hRegistration << "): found registration");
        return it->second;
    }
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::lookup(" << hRegistration << "): could not find registration");
    return OrvoJavaNotificationCallbackQueueSP();
}

int OrvoJavaNotificationCallbackContainer::regForJavaNotification(const char* pszEventBaseName) {
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::regForJavaNotification: enter: pszEventBaseName="
                    << "|" << pszEventBaseName << "|");
    OrvoCriticalSection lock(m_Mutex);
    // Never freed: the queue must outlive any late callback that carries it.
    OrvoJavaNotificationCallbackQueueSP* pspQueue =
        new OrvoJavaNotificationCallbackQueueSP(new OrvoJavaNotificationCallbackQueue());
    const int hRegistration = _OrvoNNRegisterForNotification(pszEventBaseName, JavaNotificationCallback, pspQueue);
    if (hRegistration >= 0) {
        ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::regForJavaNotification: registered as "
                        << hRegistration << ", adding callback queue");
        getInstance().add(hRegistration, *pspQueue);
    }
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::regForJavaNotification: exit");
    return hRegistration;
}

bool OrvoJavaNotificationCallbackContainer::waitForJavaNotification(int hRegistration,
                                                                    OrvoJavaNotificationSP& spNotification) {
    // Held across the wait: the queue stays alive even if stop removes it.
    OrvoJavaNotificationCallbackQueueSP spQueue = getInstance().lookup(hRegistration);
    if (spQueue == OrvoJavaNotificationCallbackQueueSP()) {
        ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::waitForJavaNotification: could not find callback queue");
        return false;
    }
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::waitForJavaNotification: found callback queue, starting wait");
    // The caller's hold is given up so that deliveries, registrations and
    // stops go on while this thread blocks.
    m_Mutex.unlock();
    const bool bHave = spQueue->consume(spNotification);
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::waitForJavaNotification: done waiting");
    m_Mutex.lock();
    if (bHave) {
        ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::waitForJavaNotification: have a notification");
        return true;
    }
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::waitForJavaNotification: no notification");
    return false;
}

void OrvoJavaNotificationCallbackContainer::stopJavaWaitNotification(int hRegistration) {
    OrvoCriticalSection lock(m_Mutex);
    OrvoJavaNotificationCallbackQueueSP spQueue = getInstance().lookup(hRegistration);
    if (spQueue == OrvoJavaNotificationCallbackQueueSP()) return;
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::stopJavaWaitNotification: producing sentinel");
    spQueue->produceSentinel(true);
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::stopJavaWaitNotification: removing callback queue");
    getInstance().remove(hRegistration);
    // Unsubscribing talks to the daemon: not under the container's lock.
    lock.unlock();
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::stopJavaWaitNotification: unregister notification");
    OrvoNNUnregisterForNotification(hRegistration);
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::stopJavaWaitNotification: unregistered");
}

int waitForJavaEventCode(int hRegistration, const char* pszClass) {
    OrvoJavaNotificationCallbackContainer& container = OrvoJavaNotificationCallbackContainer::getInstance();
    ORVO_LOG(9, pszClass << "::waitForNotification: enter");
    OrvoCriticalSection lock(container.mutex());
    int nResult = -1;
    for (;;) {
        OrvoJavaNotificationSP spNotification;
        if (!container.waitForJavaNotification(hRegistration, spNotification)) {
            ORVO_LOG(9, pszClass << "::waitForNotification: no notification");
            nResult = -1;
            break;
        }
        ORVO_LOG(9, pszClass << "::waitForNotification: have a notification");
        // The same rule as the C callbacks: a payload without a whole code is logged and skipped,
        // never read as 0, which is a real event code.
        if (familyEventCode(pszClass, &spNotification->notification(), nResult)) break;
    }
    ORVO_LOG(9, pszClass << "::waitForNotification: exit");
    return nResult;
}

void OrvoJavaNotificationCallbackContainer::JavaNotificationCallback(const char* pszEventName,
                                                                     OrvoNNNotification* pNotification) {
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::JavaNotificationCallback (" << pszEventName << "): enter");
    OrvoCriticalSection lock(m_Instance->m_Mutex);
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::JavaNotificationCallback (" << pszEventName
                                                                                    << "): generating notification");
    OrvoJavaNotificationCallbackQueueSP& spQueue =
        *static_cast<OrvoJavaNotificationCallbackQueueSP*>(pNotification->m_pContext);
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::JavaNotificationCallback ("
                    << pszEventName << "): found queue, producing notification");
    OrvoJavaNotificationSP spNotification(new OrvoJavaNotification(pszEventName, *pNotification));
    spQueue->produce(spNotification);
    ORVO_LOG(9, "OrvoJavaNotificationCallbackContainer::JavaNotificationCallback (" << pszEventName << "): exit");
}

}  // namespace KSInterface
