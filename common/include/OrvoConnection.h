#ifndef ORVO_CONNECTION_H
#define ORVO_CONNECTION_H

#include "OrvoObjectBase.h"
#include "OrvoString.h"

namespace OrvoNet {

using OrvoSupport::OrvoString;

// A byte stream with typed transfers on top. Transports override the raw
// operations; a connection that only frames requests on another one names it
// through forwardTarget() instead, and every raw operation of such a chain
// goes straight to the transport at its end. Typed operations encode through
// the codec (OrvoCodec.h) and move bytes through the raw ones.
// Typed operations throw OrvoSupport::OrvoException (errno codes; EPROTO or
// EMSGSIZE for a malformed value; ECONNRESET at end of stream; the peer's
// code and message for an error value).
class ORVO_NET_API OrvoConnection : public OrvoSupport::OrvoObjectBase {
public:
    OrvoConnection();
    ~OrvoConnection() override;

    // Closes the transport; a later write opens it again.
    virtual void disconnect();
    // Queues bufLen raw bytes for the peer. Returns the count accepted;
    // *error is 0 or the errno of the failure.
    virtual long transfer(const char* buf, long bufLen, long* error);
    // Reads up to toRead raw bytes (all of them when bWaitForAll). Returns the
    // count; *error is 0, an errno, or ECONNRESET at end of stream.
    virtual long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll);
    // Copies up to nSize bytes that have already arrived, without consuming
    // them; nSize becomes the count. 0, or -1 with nErrorCode set.
    virtual int peekBytes(void* pBuffer, int& nSize, int& nErrorCode);
    // Opens the transport: 0, or an errno with sExceptionMessage set.
    virtual int establishImpl(OrvoString& sExceptionMessage);
    // Sends whatever the output buffer holds.
    virtual void flush();

    void transfer(const OrvoString& sValue);
    void transfer(int nValue);
    void transfer(short nValue);
    void transfer(long nValue);
    void transfer(bool bValue);
    // A literal would silently pick transfer(bool); say OrvoString(...) instead.
    void transfer(const char*) = delete;

    OrvoString receiveString();
    int receiveInt();
    short receiveShort();
    long receiveLong();
    bool receiveBool();

    // Whole raw buffers: put queues len bytes and returns the count, get
    // reads exactly len bytes and returns len; both throw OrvoException
    // (with the errno of the failure) otherwise.
    int put(void* buf, int len);
    int get(void* buf, int len);

    void setServiceName(const OrvoString& sServiceName) { m_sServiceName = sServiceName; }
    const OrvoString& getServiceName() const { return m_sServiceName; }

protected:
    // The connection whose byte stream this one uses, or null when this one
    // is a transport itself. Raw operations of a forwarding connection
    // resolve the whole chain once and act on the transport at its end.
    virtual OrvoConnection* forwardTarget();

private:
    OrvoConnection* transport();
    void transferAll(const char* buf, long len);
    void receiveAll(char* buf, long len);
    [[noreturn]] void protocolError(const char* pszWhat, int nCode);
    long readTagged(char expectedTag, int bodySize);

    OrvoString m_sServiceName;
};

}  // namespace OrvoNet

#endif
