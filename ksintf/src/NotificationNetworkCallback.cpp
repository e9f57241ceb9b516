// The callback object of one notification-network subscription.

#include "NotificationNetworkCallback.h"

#include <cerrno>
#include <utility>

#include "KSIntfLibrary.h"
#include "OrvoCodec.h"
#include "OrvoException.h"
#include "OrvoLogging.h"

namespace KSInterface {

NotificationNetworkCallback::NotificationNetworkCallback(const OrvoString& eventName)
    : OrvoNet::OrvoNotificationCallback(KSIntfLibrary::getInstance().getCallbackContainer().getNewId()),
      m_sNNEventName(eventName),
      m_pfnCallback(nullptr),
      m_sXmlData(),
      m_vProducerData(nullptr),
      m_ProducerDataLen(0),
      m_pvContext(nullptr) {}

NotificationNetworkCallback::~NotificationNetworkCallback() { delete[] static_cast<char*>(m_vProducerData); }

void NotificationNetworkCallback::setCallback(PFNNNotificationCallback fn, void* context) {
    m_pfnCallback = fn;
    m_pvContext = context;
}

void NotificationNetworkCallback::setEventName(const OrvoString& sEventName) { m_sNNEventName = sEventName; }

const OrvoString& NotificationNetworkCallback::getEventName() { return m_sNNEventName; }

void NotificationNetworkCallback::setXmlData(OrvoString sXmlData) { m_sXmlData = std::move(sXmlData); }

OrvoString NotificationNetworkCallback::getXmlData() { return m_sXmlData; }

void NotificationNetworkCallback::setProducerData(long nLength, void* pData) {
    m_ProducerDataLen = nLength;
    m_vProducerData = pData;
}

const void* NotificationNetworkCallback::getProducerData() { return m_vProducerData; }

long NotificationNetworkCallback::getProducerDataLen() { return m_ProducerDataLen; }

void NotificationNetworkCallback::doCallback(OrvoSmartPointer<OrvoConnection>& conn) {
    ORVO_LOG(9, "NotificationNetworkCallback::doCallback: enter");
    conn->receiveString();  // the publisher's sender address, of no use here
    const OrvoString sEventName = conn->receiveString();
    const OrvoString sXml = conn->receiveString();
    setEventName(sEventName);
    setXmlData(sXml);
    const long nLength = conn->receiveLong();
    // The length comes from the wire: refuse one that no push frame can carry
    // instead of attempting an absurd allocation.
    if (nLength < 0 || nLength > static_cast<long>(OrvoNet::Codec::kMaxPushPayload)) {
        throw OrvoSupport::OrvoException("NotificationNetworkCallback::doCallback: invalid payload length", EMSGSIZE);
    }
    // One byte more than needed, so that even an empty payload has an address.
    char* pData = new char[nLength + 1];

    OrvoNNNotification notification;
    notification.m_pszData = sXml.c_str();
    notification.m_pData = pData;
    notification.m_nDataLength = nLength;
    notification.m_pContext = m_pvContext;

    long status = 0;
    conn->receive(pData, nLength, &status, true);
    // The previous payload belonged to its own delivery only (subscribers
    // copy what they keep), so it is freed here rather than left behind.
    delete[] static_cast<char*>(m_vProducerData);
    setProducerData(nLength, pData);

    if (m_pfnCallback != nullptr) {
        ORVO_LOG(9, "NotificationNetworkCallback::doCallback: invoking m_pfnCallback");
        m_pfnCallback(sEventName.c_str(), &notification);
    }
    ORVO_LOG(9, "NotificationNetworkCallback::doCallback: exit");
}

}  // namespace KSInterface
