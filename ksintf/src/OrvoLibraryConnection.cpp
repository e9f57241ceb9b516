// The connection that frames every request to the daemon.

#include "OrvoLibraryConnection.h"

#include <cstdlib>

#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "OrvoException.h"
#include "OrvoLogging.h"
#include "OrvoProtocol.h"
#include "OrvoStreamConnection.h"

using OrvoSupport::OrvoException;

namespace {

const char* const kDefaultPipeName = "osm_ks_shrsvc";
const char* const kDefaultHost = "127.0.0.1";
const int kDefaultPort = 1311;

}  // namespace

namespace KSInterface {

OrvoLibraryConnection::OrvoLibraryConnection() : m_connection(), m_RequestActive(false) {
    establishConnection();
    connectToService();
}

OrvoLibraryConnection::OrvoLibraryConnection(const OrvoString& sEngineName, const OrvoString& sCommand)
    : m_connection(), m_RequestActive(false) {
    establishConnection();
    connectToService();
    startNewRequest(sEngineName, sCommand);
}

OrvoLibraryConnection::OrvoLibraryConnection(const OrvoString& sProtocol, const OrvoString& sEngineName,
                                             const OrvoString& sCommand)
    : m_connection(), m_RequestActive(false) {
    establishConnection(sProtocol);
    connectToService();
    startNewRequest(sEngineName, sCommand);
}

OrvoLibraryConnection::OrvoLibraryConnection(OrvoSmartPointer<OrvoConnection>& conn)
    : m_connection(), m_RequestActive(false) {
    m_connection = conn;
    connectToService();
}

OrvoLibraryConnection::OrvoLibraryConnection(OrvoSmartPointer<OrvoConnection>& conn, const OrvoString& sEngineName,
                                             const OrvoString& sCommand)
    : m_connection(), m_RequestActive(false) {
    m_connection = conn;
    connectToService();
    startNewRequest(sEngineName, sCommand);
}

OrvoLibraryConnection::~OrvoLibraryConnection() {
    endRequest();
    m_connection = static_cast<OrvoConnection*>(nullptr);
}

OrvoConnection* OrvoLibraryConnection::forwardTarget() { return m_connection; }

void OrvoLibraryConnection::startNewRequest(const OrvoString& sEngineName, const OrvoString& sCommand) {
    m_connection->transfer(OrvoNet::Protocol::kProtocolVersion);
    m_connection->transfer(OrvoNet::Protocol::kMagic);
    m_connection->transfer(sEngineName);
    m_connection->transfer(sCommand);
    m_RequestActive = true;
}

void OrvoLibraryConnection::endRequest() {
    if (!m_RequestActive) return;
    // Cleared first: a failed trailer read must not be retried by the destructor.
    m_RequestActive = false;
    try {
        m_connection->receiveShort();
        m_connection->receiveShort();
    } catch (OrvoException&) {
        // The exchange is over either way; destroying a connection after a
        // failed call must not throw.
    }
}

int OrvoLibraryConnection::registerCallback(OrvoSmartPointer<OrvoNet::OrvoNotificationCallback> spCallback) {
    const int id = spCallback->getId();
    KSIntfLibrary& library = KSIntfLibrary::getInstance();
    library.getCallbackContainer().add(spCallback);
    try {
        m_connection->transfer(library.getCallbackAddress());
        m_connection->transfer(id);
        const int status = receiveInt();
        return status == 0 ? id : status;
    } catch (OrvoException& e) {
        // The callback stays in the container: a late push still finds it.
        return -e.getCode();
    }
}

int OrvoLibraryConnection::unregisterCallback(int hRegistration) {
    KSIntfLibrary& library = KSIntfLibrary::getInstance();
    try {
        m_connection->transfer(library.getCallbackAddress());
        m_connection->transfer(hRegistration);
        const int status = receiveInt();
        if (status == 0) library.getCallbackContainer().remove(hRegistration);
        return status;
    } catch (OrvoException& e) {
        return -e.getCode();
    }
}

void OrvoLibraryConnection::establishConnection() {
    const char* pszType = std::getenv("KSINTF_CONN_TYPE");
    if (pszType != nullptr) {
        establishConnection(OrvoString(pszType));
    } else {
        establishDefaultConnection();
    }
}

void OrvoLibraryConnection::establishDefaultConnection() {
    ORVO_LOG(9,
             "OrvoLibraryConnection::establishDefaultConnection: creating default (named pipe) connection "
             "using name '"
                 << kDefaultPipeName << "'");
    setTransport(new OrvoNet::OrvoPipeConnection(kDefaultPipeName));
}

void OrvoLibraryConnection::establishConnection(const OrvoString& sProtocol) {
    if (sProtocol.compare(0, 4, "pipe") == 0) {
        OrvoString sName(kDefaultPipeName);
        if (sProtocol.size() > 4 && sProtocol[4] == ':') sName = sProtocol.substr(5);
        ORVO_LOG(9, "OrvoLibraryConnection::establishConnection: creating named pipe connection using name "
                        << "'" << sName << "'");
        setTransport(new OrvoNet::OrvoPipeConnection(sName));
    } else if (sProtocol.compare(0, 6, "socket") == 0) {
        OrvoString sHost(kDefaultHost);
        int nPort = kDefaultPort;
        if (sProtocol.size() > 6 && sProtocol[6] == ':') {
            // Split "<colon><rest>" at its first colon, which is the leading one:
            // the host is always empty and the port is read from everything after it.
            const OrvoString sAddress = sProtocol.substr(6);
            const std::size_t nColon = sAddress.find(':');
            sHost = sAddress.substr(0, nColon);
            nPort = static_cast<int>(std::strtol(sAddress.c_str() + nColon + 1, nullptr, 10));
        }
        ORVO_LOG(9, "OrvoLibraryConnection::establishConnection: creating tcp connection to "
                        << "'" << sHost << "' using port " << nPort);
        setTransport(new OrvoNet::OrvoSocketConnection(sHost, nPort, true, false));
    } else {
        ORVO_LOG(1,
                 "OrvoLibraryConnection::establishConnection: unknown connection type specified, creating "
                 "default connection");
        establishDefaultConnection();
    }
}

void OrvoLibraryConnection::connectToService() {
    m_connection->setServiceName("TRVX");
    OrvoString sError;
    const int rc = m_connection->establishImpl(sError);
    if (rc == 0 && sError.empty()) return;
    throw OrvoException(sError, rc);
}

void OrvoLibraryConnection::setTransport(OrvoConnection* pConnection) {
    // The smart pointer releases the old transport and takes the new one,
    // and leaves things alone when both are the same object.
    m_connection = pConnection;
    setReplyDeadline(*this, replyTimeoutMs());
}

long replyTimeoutMs() {
    const char* pszValue = std::getenv("KSINTF_REPLY_TIMEOUT_MS");
    if (pszValue == nullptr || *pszValue == '\0') return -1;
    char* pszEnd = nullptr;
    const long nMs = std::strtol(pszValue, &pszEnd, 10);
    if (*pszEnd != '\0' || nMs <= 0) {
        ORVO_LOG(1, "KSINTF_REPLY_TIMEOUT_MS='" << pszValue << "' is not a positive number of ms; waiting without "
                                                << "a deadline");
        return -1;
    }
    return nMs;
}

void setReplyDeadline(OrvoLibraryConnection& connection, long nMs) {
    if (auto* pStream = dynamic_cast<OrvoNet::OrvoStreamConnection*>(static_cast<OrvoNet::OrvoConnection*>(connection.transport())))
        pStream->setReceiveTimeout(nMs);
}

OrvoLibraryConnectionRequest::OrvoLibraryConnectionRequest(OrvoLibraryConnection& connection,
                                                           const OrvoString& sEngineName, const OrvoString& sCommand)
    : m_connection(connection) {
    m_connection.startNewRequest(sEngineName, sCommand);
}

OrvoLibraryConnectionRequest::~OrvoLibraryConnectionRequest() { m_connection.endRequest(); }

OrvoConnection* OrvoLibraryConnectionRequest::forwardTarget() { return &m_connection; }

}  // namespace KSInterface
