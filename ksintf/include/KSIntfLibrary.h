#ifndef KSINTF_LIBRARY_H
#define KSINTF_LIBRARY_H

#include "OrvoExport.h"

#ifdef __cplusplus

#include <atomic>
#include <map>

#include "OrvoCriticalSection.h"
#include "OrvoLibraryCallbackSink.h"
#include "OrvoNotificationNetwork.h"
#include "OrvoObjectBase.h"
#include "OrvoProducerConsumer.h"
#include "OrvoSmartPointer.h"

namespace KSInterface {

class OrvoLibraryConnection;

// The process-wide library object: the callback sink through which the
// daemon reaches every callback of every family (its thread runs them all),
// and the owner of the one shared connection that publications use.
class KSINTF_API KSIntfLibrary : public OrvoNet::OrvoLibraryCallbackSink {
public:
    ~KSIntfLibrary() override;

    // The singleton, created by the first caller; safe to call from any
    // thread. Valid until deleteInstance() (run by the module's detach).
    static KSIntfLibrary& getInstance();
    // Stops the sink thread and destroys the singleton; does nothing when
    // there is none.
    static void deleteInstance();
    // The shared connection, opened by the first caller. Throws OrvoException
    // (leaving nothing behind, so a later call retries) when the daemon cannot
    // be reached. Callers serialise their requests on it themselves.
    static OrvoLibraryConnection& getSharedLibraryConnection();
    // Closes and destroys the shared connection; nothing when there is none.
    static void deleteSharedLibraryConnection();

private:
    KSIntfLibrary();
    KSIntfLibrary(const KSIntfLibrary&);
    KSIntfLibrary& operator=(const KSIntfLibrary&);

    static std::atomic<KSIntfLibrary*> m_pThis;
    static OrvoLibraryConnection* m_pLibraryConnection;
};

// Event names under which the daemon publishes the families' events:
// "OrvoTSEvent:<handle>$", "OrvoRAEvent:<resource>$", "OrvoJSEvent:<job>$".
// A null name raises the standard logic error.
KSINTF_API OrvoSupport::OrvoString TaskSchedulerEventName(int hTask);
KSINTF_API OrvoSupport::OrvoString ResourceArbitrationEventName(const char* pszResourceName);
KSINTF_API OrvoSupport::OrvoString JobStatusEventName(const char* pszJobName);

// One notification on its way to a Java thread: a deep copy of the record
// the notification network delivered (text and bytes owned here) and the
// event's name. The context of the copy is not set.
class KSINTF_API OrvoJavaNotification : public OrvoSupport::OrvoObjectBase {
public:
    // A null event name raises the standard logic error.
    OrvoJavaNotification(const char* pszEventName, OrvoNNNotification& notification);
    ~OrvoJavaNotification() override;

    const OrvoSupport::OrvoString& eventName() const { return m_sEventName; }
    const OrvoNNNotification& notification() const { return m_NotificationData; }

private:
    OrvoJavaNotification(const OrvoJavaNotification&);
    OrvoJavaNotification& operator=(const OrvoJavaNotification&);

    OrvoNNNotification m_NotificationData;
    OrvoSupport::OrvoString m_sEventName;
};

typedef OrvoSupport::OrvoSmartPointer<OrvoJavaNotification> OrvoJavaNotificationSP;

// The blocking queue of one Java registration, shared by reference count.
class KSINTF_API OrvoJavaNotificationCallbackQueue : public OrvoSupport::OrvoProducerConsumer<OrvoJavaNotificationSP>,
                                                     public OrvoSupport::OrvoObjectBase {
public:
    OrvoJavaNotificationCallbackQueue() {}
    ~OrvoJavaNotificationCallbackQueue() override {}
};

typedef OrvoSupport::OrvoSmartPointer<OrvoJavaNotificationCallbackQueue> OrvoJavaNotificationCallbackQueueSP;

// Java threads cannot be called back, so each Java registration owns a queue
// that the notification network's callback fills and a Java thread drains.
// Lock order: mutex() (recursive), then a queue's synchronisation mutex,
// then the queue's own lock. getInstance() is not locked: the first Java
// call creates the instance before threads race.
class KSINTF_API OrvoJavaNotificationCallbackContainer {
public:
    typedef std::map<int, OrvoJavaNotificationCallbackQueueSP> ContainerMap;

    static OrvoJavaNotificationCallbackContainer& getInstance();
    static void deleteInstance();

    OrvoSupport::OrvoCriticalSectionObject& mutex() { return m_Mutex; }

    // False (existing queue kept) when the id is already present.
    bool add(int hRegistration, OrvoJavaNotificationCallbackQueueSP& spCallbackQueue);
    bool remove(int hRegistration);
    // Empty when the id is unknown.
    OrvoJavaNotificationCallbackQueueSP lookup(int hRegistration);

    // Subscribes to the event name; the registration id, or the notification
    // network's negative code (nothing is kept then).
    int regForJavaNotification(const char* pszEventBaseName);
    // The caller holds mutex() exactly once; it is given up while this blocks
    // and held again on return. False when the id is unknown or stopped.
    bool waitForJavaNotification(int hRegistration, OrvoJavaNotificationSP& spNotification);
    // Releases a waiter (queued notifications still go out first), forgets
    // the id, then unsubscribes outside the lock. Unknown ids: nothing.
    void stopJavaWaitNotification(int hRegistration);

    // Runs on the callback thread; the context is the registration's queue.
    static void JavaNotificationCallback(const char* pszEventName, OrvoNNNotification* pNotification);

private:
    OrvoJavaNotificationCallbackContainer() {}
    OrvoJavaNotificationCallbackContainer(const OrvoJavaNotificationCallbackContainer&);
    OrvoJavaNotificationCallbackContainer& operator=(const OrvoJavaNotificationCallbackContainer&);

    // Declared in this order so that deletion destroys the mutex, then the map.
    ContainerMap m_Container;
    OrvoSupport::OrvoCriticalSectionObject m_Mutex;
    static OrvoJavaNotificationCallbackContainer* m_Instance;
};

}  // namespace KSInterface

extern "C" {
#endif

/* For hosts that start and stop modules themselves: attach/detach every
   registered module, counted, so only the first start and last stop work. */
KSINTF_API void KSIntfInitModuleData(void);
KSINTF_API void KSIntfFinitModuleData(void);

#ifdef __cplusplus
}
#endif

#endif
