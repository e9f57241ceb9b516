// Pushed task records for callback objects registered by client code.

#include "TaskSchedulerCallback.h"

#include "KSIntfLibrary.h"

namespace KSInterface {

TaskSchedulerCallback::TaskSchedulerCallback(int nTskId)
    : OrvoNotificationCallback(KSIntfLibrary::getInstance().getCallbackContainer().getNewId()),
      m_nTaskId(nTskId),
      m_taskState(cWaiting),
      m_pfnCallback(nullptr) {}

TaskSchedulerCallback::~TaskSchedulerCallback() {}

void TaskSchedulerCallback::setState(tTaskState state) { m_taskState = state; }

tTaskState TaskSchedulerCallback::getState() { return m_taskState; }

void TaskSchedulerCallback::setCallback(PFTSNotificationCallback pfnCallback) { m_pfnCallback = pfnCallback; }

void TaskSchedulerCallback::doCallback(OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection>& spConnection) {
    spConnection->receiveShort();  // leading value, not used by this class
    // The state travels as a short: widening keeps 0xFFFF as cExit.
    setState(static_cast<tTaskState>(static_cast<int>(spConnection->receiveShort())));
    m_nTaskId = static_cast<int>(spConnection->receiveLong());
    if (m_pfnCallback != nullptr) m_pfnCallback(m_nTaskId, m_taskState);
}

}  // namespace KSInterface
