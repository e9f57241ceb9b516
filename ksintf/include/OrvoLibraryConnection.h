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

// A connection to the daemon that frames requests. It wraps a transport
// chosen from KSINTF_CONN_TYPE ("pipe[:name]" or "socket[:port]"; the pipe
// "osm_ks_shrsvc" by default) and is a forwarding connection: its raw and
// typed operations read and write that transport. Failures throw
// OrvoSupport::OrvoException; the destructor never throws it.
class KSINTF_API OrvoLibraryConnection : public OrvoConnection {
public:
    OrvoLibraryConnection();
    OrvoLibraryConnection(const OrvoString& sEngineName, const OrvoString& sCommand);
    OrvoLibraryConnection(const OrvoString& sProtocol, const OrvoString& sEngineName, const OrvoString& sCommand);
    explicit OrvoLibraryConnection(OrvoSmartPointer<OrvoConnection>& conn);
    OrvoLibraryConnection(OrvoSmartPointer<OrvoConnection>& conn, const OrvoString& sEngineName,
                          const OrvoString& sCommand);
    ~OrvoLibraryConnection() override;

    // Writes the request header (version, magic, service, request name).
    void startNewRequest(const OrvoString& sEngineName, const OrvoString& sCommand);
    // Reads the reply trailer (two shorts) if a request is active; swallows
    // an OrvoException from those reads.
    void endRequest();
    bool isRequestActive() const { return m_RequestActive; }

    // Adds the callback to the library's container, then sends the callback
    // address and the callback's id. Returns the id when the daemon answers 0,
    // else the daemon's status, or minus an OrvoException's code; the callback
    // stays in the container in both failure cases.
    int registerCallback(OrvoSmartPointer<OrvoNet::OrvoNotificationCallback> spCallback);
    // Sends the callback address and the handle; on the daemon's 0 removes the
    // callback from the container. Returns the status or minus the code.
    int unregisterCallback(int hRegistration);

    void establishConnection();
    void establishDefaultConnection();
    void establishConnection(const OrvoString& sProtocol);
    void connectToService();

    // The transport in use (null before a connection is established).
    OrvoSmartPointer<OrvoConnection>& transport() { return m_connection; }

protected:
    OrvoConnection* forwardTarget() override;

private:
    OrvoLibraryConnection(const OrvoLibraryConnection&);
    OrvoLibraryConnection& operator=(const OrvoLibraryConnection&);
    void setTransport(OrvoConnection* pConnection);

    OrvoSmartPointer<OrvoConnection> m_connection;
    bool m_RequestActive;
};

// One request on a borrowed connection (the shared one): started at
// construction, ended at destruction; it reads and writes that connection's
// transport. The borrowed connection must outlive it.
class KSINTF_API OrvoLibraryConnectionRequest : public OrvoConnection {
public:
    OrvoLibraryConnectionRequest(OrvoLibraryConnection& connection, const OrvoString& sEngineName,
                                 const OrvoString& sCommand);
    ~OrvoLibraryConnectionRequest() override;

protected:
    OrvoConnection* forwardTarget() override;

private:
    OrvoLibraryConnectionRequest();
    OrvoLibraryConnectionRequest(const OrvoLibraryConnectionRequest&);
    OrvoLibraryConnectionRequest& operator=(const OrvoLibraryConnectionRequest&);

    OrvoLibraryConnection& m_connection;
};

}  // namespace KSInterface

#endif  // __cplusplus

#endif
