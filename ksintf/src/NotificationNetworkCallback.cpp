// The callback object of one notification-network subscription.

#include "NotificationNetworkCallback.h"

#include <cerrno>
#include <memory>
#include <utility>

#include "KSIntfLibrary.h"
#include "OrvoCodec.h"
#include "OrvoException.h"
#include "OrvoLogging.h"
#include "OrvoPayloadConnection.h"

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
    // The length comes from the wire: a payload longer than what the pushed
    // frame still holds (or than any frame can carry) is refused before
    // anything is allocated for it.
    const auto* pFrame = dynamic_cast<const OrvoNet::OrvoPayloadConnection*>(static_cast<OrvoConnection*>(conn));
    const long nAvailable = pFrame != nullptr ? static_cast<long>(pFrame->remaining())
                                              : static_cast<long>(OrvoNet::Codec::kMaxPushPayload);
    if (nLength < 0 || nLength > nAvailable) {
        throw OrvoSupport::OrvoException("NotificationNetworkCallback::doCallback: invalid payload length", EMSGSIZE);
    }
    // One byte more than needed, so that even an empty payload has an address.
    std::unique_ptr<char[]> spData(new char[nLength + 1]);
    // get() throws unless every byte arrived: the subscriber never sees
    // bytes that were not sent.
    if (nLength > 0) conn->get(spData.get(), static_cast<int>(nLength));

    OrvoNNNotification notification;
    notification.m_pszData = sXml.c_str();
    notification.m_pData = spData.get();
    notification.m_nDataLength = nLength;
    notification.m_pContext = m_pvContext;

    // The previous payload belonged to its own delivery only (subscribers
    // copy what they keep), so it is freed here rather than left behind.
    delete[] static_cast<char*>(m_vProducerData);
    setProducerData(nLength, spData.release());

    if (m_pfnCallback != nullptr) {
        ORVO_LOG(9, "NotificationNetworkCallback::doCallback: invoking m_pfnCallback");
        m_pfnCallback(sEventName.c_str(), &notification);
    }
    ORVO_LOG(9, "NotificationNetworkCallback::doCallback: exit");
}

}  // namespace KSInterface
