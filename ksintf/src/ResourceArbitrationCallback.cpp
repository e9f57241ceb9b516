// Pushed lock events for callback objects registered by client code.

#include "ResourceArbitrationCallback.h"

#include <vector>

#include "KSIntfLibrary.h"
#include "OrvoString.h"

namespace KSInterface {

ResourceArbitrationCallback::ResourceArbitrationCallback(const OrvoSupport::OrvoString& sResourceName)
    : OrvoNotificationCallback(KSIntfLibrary::getInstance().getCallbackContainer().getNewId()),
      m_nLockCode(0),
      m_sResourceName(sResourceName),
      m_pfnCallback(nullptr) {}

ResourceArbitrationCallback::~ResourceArbitrationCallback() {}

void ResourceArbitrationCallback::doCallback(OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection>& spConnection) {
    spConnection->receiveShort();  // leading value, not used by this class
    setLockCode(static_cast<int>(spConnection->receiveShort()));
    spConnection->receiveString();  // read to consume the message; the stored name is passed
    if (m_pfnCallback != nullptr) {
        const int nSize = static_cast<int>(m_sResourceName.length()) + 1;
        std::vector<char> buffer(static_cast<std::size_t>(nSize));
        OrvoSupport::OrvoStringToChar(m_sResourceName, buffer.data(), nSize);
        m_pfnCallback(buffer.data(), m_nLockCode);
    }
}

}  // namespace KSInterface
