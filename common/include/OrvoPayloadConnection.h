#ifndef ORVO_PAYLOAD_CONNECTION_H
#define ORVO_PAYLOAD_CONNECTION_H

#include "OrvoConnection.h"

namespace OrvoNet {

// A connection over bytes in memory: reads come from the payload given at
// construction (end of stream after it), writes collect in written(). Given
// a pointer and a size, it reads them where they are: they must outlive it.
class ORVO_NET_API OrvoPayloadConnection : public OrvoConnection {
public:
    explicit OrvoPayloadConnection(OrvoString sPayload);
    OrvoPayloadConnection(const char* pPayload, std::size_t nSize);
    ~OrvoPayloadConnection() override;

    using OrvoConnection::transfer;  // keep the typed overloads visible
    long transfer(const char* buf, long bufLen, long* error) override;
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;
    int peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;

    const OrvoString& written() const { return m_sWritten; }
    std::size_t remaining() const { return m_nSize - m_nPos; }

private:
    OrvoString m_sPayload;  // empty when the bytes are not ours
    const char* m_pData;
    std::size_t m_nSize;
    std::size_t m_nPos;
    OrvoString m_sWritten;
};

}  // namespace OrvoNet

#endif
