#ifndef ORVO_STREAM_CONNECTION_H
#define ORVO_STREAM_CONNECTION_H

#include <vector>

#include "OrvoConnection.h"

struct sockaddr;

namespace OrvoNet {

// A buffered stream socket, the common part of the Unix and TCP transports.
// Writes collect in an output buffer that goes out in one send when the
// connection first needs to read, when it passes kFlushThreshold, or at
// flush(). A socket that failed is reopened at the next write; before the
// first write of a new request (a write after a read) a peer that has closed
// meanwhile, or unread stale input, also makes it reopen. Sends never raise
// SIGPIPE.
class ORVO_NET_API OrvoStreamConnection : public OrvoConnection {
public:
    static constexpr std::size_t kFlushThreshold = 64 * 1024;

    ~OrvoStreamConnection() override;

    using OrvoConnection::transfer;  // keep the typed overloads visible
    void disconnect() override;
    long transfer(const char* buf, long bufLen, long* error) override;
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;
    int peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;
    int establishImpl(OrvoString& sExceptionMessage) override;
    void flush() override;

    bool isOpen() const { return m_fd >= 0 && !m_bPeerClosed; }
    // Every blocking receive gives up after nMs with ETIMEDOUT and closes the
    // socket, so that the next request starts on a fresh one; a negative value
    // waits without limit (the default). Holds for every socket reopened later.
    void setReceiveTimeout(long nMs);
    // Number of send calls made so far (for tests of the buffering).
    long sendCalls() const { return m_nSendCalls; }

protected:
    OrvoStreamConnection();
    // Opens a connected socket; returns the fd, or -1 with errno set and
    // sWhat describing the attempt.
    virtual int openSocket(OrvoString& sWhat) = 0;
    // Whether openSocket gives Unix sockets (their peer is known without asking the family).
    virtual bool opensUnixSockets() const { return false; }

private:
    int sendBuffered(long* error);
    int sendOut(const char* p, std::size_t n);
    bool reopenIfStale(long* error);
    void markFailed();
    void failSending(int nCode);
    void applyReceiveTimeout();

    int m_fd;
    long m_nReceiveTimeoutMs = -1;
    bool m_bFailed;
    bool m_bReadSinceWrite;
    // The peer closed while we wrote: what it sent before (an error value)
    // is still to be read, so the socket stays open for reading.
    bool m_bPeerClosed = false;
    // The next send is the first on a socket kept from an earlier request.
    bool m_bUnverified = false;
    long m_nSendCalls;
    std::vector<char> m_out;
    std::vector<char> m_in;
    std::size_t m_inPos;
    std::size_t m_inEnd;
};

// Unix stream socket: a name without '/' is an abstract name, one with '/'
// a filesystem path.
class ORVO_NET_API OrvoPipeConnection : public OrvoStreamConnection {
public:
    explicit OrvoPipeConnection(const OrvoString& sPipeName);
    ~OrvoPipeConnection() override;
    const OrvoString& getPipeName() const { return m_sPipeName; }

protected:
    int openSocket(OrvoString& sWhat) override;
    bool opensUnixSockets() const override { return true; }

private:
    OrvoString m_sPipeName;
};

// TCP to host:port; an empty host means 127.0.0.1.
class ORVO_NET_API OrvoSocketConnection : public OrvoStreamConnection {
public:
    OrvoSocketConnection(const OrvoString& sHost, int nPort, bool bNoDelay, bool bKeepAlive);
    ~OrvoSocketConnection() override;
    const OrvoString& getHost() const { return m_sHost; }
    int getPort() const { return m_nPort; }

protected:
    int openSocket(OrvoString& sWhat) override;

private:
    OrvoString m_sHost;
    int m_nPort;
    bool m_bNoDelay;
    bool m_bKeepAlive;
};

// Fills a sockaddr_un for a pipe name (abstract or path); returns the address
// length, or 0 when the name does not fit.
ORVO_NET_API unsigned pipeAddress(const OrvoString& sPipeName, void* pSockaddrUn);

}  // namespace OrvoNet

#endif
