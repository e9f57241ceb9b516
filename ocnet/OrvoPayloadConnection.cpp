// A connection over bytes in memory, used to hand a pushed payload to a callback.
#include "OrvoPayloadConnection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace OrvoNet {

OrvoPayloadConnection::OrvoPayloadConnection(OrvoString sPayload)
    : m_sPayload(std::move(sPayload)), m_pData(m_sPayload.data()), m_nSize(m_sPayload.size()), m_nPos(0) {}

OrvoPayloadConnection::OrvoPayloadConnection(const char* pPayload, std::size_t nSize)
    : m_pData(pPayload), m_nSize(nSize), m_nPos(0) {}

OrvoPayloadConnection::~OrvoPayloadConnection() = default;

long OrvoPayloadConnection::transfer(const char* buf, long bufLen, long* error) {
    if (error) *error = 0;
    if (bufLen <= 0) return 0;
    m_sWritten.append(buf, static_cast<std::size_t>(bufLen));
    return bufLen;
}

long OrvoPayloadConnection::receive(char* bufPtr, long toRead, long* error, bool) {
    if (error) *error = 0;
    if (toRead <= 0) return 0;
    const std::size_t nTake = std::min(remaining(), static_cast<std::size_t>(toRead));
    std::memcpy(bufPtr, m_pData + m_nPos, nTake);
    m_nPos += nTake;
    // Asking past the payload is the end of this stream.
    if (nTake < static_cast<std::size_t>(toRead) && error) *error = ECONNRESET;
    return static_cast<long>(nTake);
}

int OrvoPayloadConnection::peekBytes(void* pBuffer, int& nSize, int& nErrorCode) {
    nErrorCode = 0;
    const std::size_t nCopy = std::min(remaining(), static_cast<std::size_t>(std::max(nSize, 0)));
    std::memcpy(pBuffer, m_pData + m_nPos, nCopy);
    nSize = static_cast<int>(nCopy);
    return 0;
}

}  // namespace OrvoNet
