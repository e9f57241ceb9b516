#ifndef TASK_SCHEDULER_CALLBACK_H
#define TASK_SCHEDULER_CALLBACK_H

#include "OrvoTaskScheduler.h"

#ifdef __cplusplus

#include "OrvoNotificationCallback.h"

namespace KSInterface {

// A callback object for clients that register with the library connection
// themselves: each pushed task record (short, short state, long task id)
// updates the object and is handed to a plain C function, if one is set.
class KSINTF_API TaskSchedulerCallback : public OrvoNet::OrvoNotificationCallback {
public:
    // Takes a fresh id from the library singleton's callback container.
    explicit TaskSchedulerCallback(int nTskId);
    ~TaskSchedulerCallback() override;

    void setState(tTaskState state);
    tTaskState getState();
    void setCallback(PFTSNotificationCallback pfnCallback);
    // The task id of the last delivery (the constructor's until then).
    int getTaskId() const { return m_nTaskId; }

    void doCallback(OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection>& spConnection) override;

private:
    TaskSchedulerCallback();
    TaskSchedulerCallback(const TaskSchedulerCallback&);
    TaskSchedulerCallback& operator=(const TaskSchedulerCallback&);

    int m_nTaskId;
    tTaskState m_taskState;
    PFTSNotificationCallback m_pfnCallback;
};

}  // namespace KSInterface

#endif
#endif
