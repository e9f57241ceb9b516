// Pushed job events for callback objects registered by client code.

#include "JobStatusCallback.h"

#include <vector>

#include "KSIntfLibrary.h"
#include "OrvoString.h"

namespace KSInterface {

JobStatusCallback::JobStatusCallback(const OrvoSupport::OrvoString& sJobName)
    : OrvoNotificationCallback(KSIntfLibrary::getInstance().getCallbackContainer().getNewId()),
      m_sJobName(sJobName),
      m_jobEvent(TRVX_JSE_COMPLETED),
      m_pfnCallback(nullptr) {}

JobStatusCallback::~JobStatusCallback() {}

void JobStatusCallback::doCallback(OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection>& spConnection) {
    spConnection->receiveShort();  // leading value, not used by this class
    setEvent(static_cast<tOrvoJSEEvent>(static_cast<int>(spConnection->receiveShort())));
    const OrvoSupport::OrvoString sText = spConnection->receiveString();
    if (m_pfnCallback != nullptr) {
        // The function gets the text just read, valid for the call only.
        const int nSize = static_cast<int>(sText.length()) + 1;
        std::vector<char> buffer(static_cast<std::size_t>(nSize));
        OrvoSupport::OrvoStringToChar(sText, buffer.data(), nSize);
        m_pfnCallback(buffer.data(), m_jobEvent);
    }
}

}  // namespace KSInterface
