#ifndef ORVO_LIBRARY_CONNECTION_H
#define ORVO_LIBRARY_CONNECTION_H

#ifdef __cplusplus

#include "OrvoConnection.h"
#include "OrvoNotificationCallback.h"
#include "OrvoSmartPointer.h"

namespace KSInterface {

using OrvoNet::OrvoConnection;
using OrvoSupport::OrvoSmartPointer;
using OrvoSupport::OrvoString;

// A connection to the daemon that frames requests: it wraps a transport
// chosen from KSINTF_CONN_TYPE and forwards its raw operations to it, so the
// inherited typed operations read and write the transport.
class KSINTF_API OrvoLibraryConnection : public OrvoConnection {
public:
    OrvoLibraryConnection();
    OrvoLibraryConnection(const OrvoString& sEngineName, const OrvoString& sCommand);
    OrvoLibraryConnection(const OrvoString& sProtocol, const OrvoString& sEngineName, const OrvoString& sCommand);
    explicit OrvoLibraryConnection(OrvoSmartPointer<OrvoConnection>& conn);
    OrvoLibraryConnection(OrvoSmartPointer<OrvoConnection>& conn, const OrvoString& sEngineName,
                          const OrvoString& sCommand);
    ~OrvoLibraryConnection() override;

    using OrvoConnection::receive;
    using OrvoConnection::transfer;

    void disconnect() override;
    long transfer(const char* buf, long bufLen, long* error) override;
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;
    int peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;
    int establishImpl(OrvoString& sExceptionMessage) override;
    void flush() override;

    void startNewRequest(const OrvoString& sEngineName, const OrvoString& sCommand);
    void endRequest();
    bool isRequestActive() const { return m_RequestActive; }

    int registerCallback(OrvoSmartPointer<OrvoNet::OrvoNotificationCallback> spCallback);
    int unregisterCallback(int hRegistration);

    void establishConnection();
    void establishDefaultConnection();
    void establishConnection(const OrvoString& sProtocol);
    void connectToService();

    // The transport in use (null before a connection is established).
    OrvoSmartPointer<OrvoConnection>& transport() { return m_connection; }

private:
    OrvoLibraryConnection(const OrvoLibraryConnection&);
    OrvoLibraryConnection& operator=(const OrvoLibraryConnection&);
    void setTransport(OrvoConnection* pConnection);

    OrvoSmartPointer<OrvoConnection> m_connection;
    bool m_RequestActive;
};

// One request on a borrowed connection (the shared one): started at
// construction, ended at destruction; its raw operations forward to it.
class KSINTF_API OrvoLibraryConnectionRequest : public OrvoConnection {
public:
    OrvoLibraryConnectionRequest(OrvoLibraryConnection& connection, const OrvoString& sEngineName,
                                 const OrvoString& sCommand);
    ~OrvoLibraryConnectionRequest() override;

    using OrvoConnection::receive;
    using OrvoConnection::transfer;

    void disconnect() override;
    long transfer(const char* buf, long bufLen, long* error) override;
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;
    int peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;
    void flush() override;

private:
    OrvoLibraryConnectionRequest();
    OrvoLibraryConnectionRequest(const OrvoLibraryConnectionRequest&);
    OrvoLibraryConnectionRequest& operator=(const OrvoLibraryConnectionRequest&);

    OrvoLibraryConnection& m_connection;
};

}  // namespace KSInterface

#endif  // __cplusplus

#endif
