// Typed transfers over the raw virtual seam, and the do-nothing raw base.
#include "OrvoConnection.h"

#include <cerrno>
#include <cstring>

#include "OrvoCodec.h"
#include "OrvoException.h"

namespace OrvoNet {

using OrvoSupport::OrvoException;

OrvoConnection::OrvoConnection() = default;
OrvoConnection::~OrvoConnection() = default;

OrvoConnection* OrvoConnection::forwardTarget() { return nullptr; }

// The transport at the end of the forwarding chain, or null when this object
// is itself the end (and so has no transport of its own to offer).
OrvoConnection* OrvoConnection::transport() {
    OrvoConnection* p = forwardTarget();
    if (p == nullptr) return nullptr;
    while (OrvoConnection* pNext = p->forwardTarget()) p = pNext;
    return p;
}

// Without a transport, raw operations fail and set-up succeeds trivially.
void OrvoConnection::disconnect() {
    if (OrvoConnection* p = transport()) p->disconnect();
}

long OrvoConnection::transfer(const char* buf, long bufLen, long* error) {
    if (OrvoConnection* p = transport()) return p->transfer(buf, bufLen, error);
    if (error) *error = EBADF;
    return 0;
}

long OrvoConnection::receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) {
    if (OrvoConnection* p = transport()) return p->receive(bufPtr, toRead, error, bWaitForAll);
    if (error) *error = EBADF;
    return 0;
}

int OrvoConnection::peekBytes(void* pBuffer, int& nSize, int& nErrorCode) {
    if (OrvoConnection* p = transport()) return p->peekBytes(pBuffer, nSize, nErrorCode);
    nSize = 0;
    nErrorCode = EBADF;
    return -1;
}

// Opening belongs to the transport itself, never to a forwarding connection.
int OrvoConnection::establishImpl(OrvoString&) { return 0; }

void OrvoConnection::flush() {
    if (OrvoConnection* p = transport()) p->flush();
}

int OrvoConnection::put(void* buf, int len) {
    long status = 0;
    const long nSent = transfer(static_cast<const char*>(buf), len, &status);
    if (status != 0) throw OrvoException("OrvoConnection::put: transfer failed.", static_cast<int>(status));
    return static_cast<int>(nSent);
}

int OrvoConnection::get(void* buf, int len) {
    long status = 0;
    const long nRead = receive(static_cast<char*>(buf), len, &status, true);
    if (nRead != len) throw OrvoException("OrvoConnection::get: failed read", static_cast<int>(status));
    return len;
}

void OrvoConnection::transferAll(const char* buf, long len) {
    long nError = 0;
    long nSent = transfer(buf, len, &nError);
    if (nError != 0 || nSent != len) {
        const int nCode = nError != 0 ? static_cast<int>(nError) : EIO;
        throw OrvoException(OrvoString("OrvoConnection::transfer: ") + std::strerror(nCode), nCode);
    }
}

void OrvoConnection::receiveAll(char* buf, long len) {
    if (len == 0) return;
    long nError = 0;
    long nGot = receive(buf, len, &nError, true);
    if (nGot != len) {
        const int nCode = nError != 0 ? static_cast<int>(nError) : ECONNRESET;
        throw OrvoException(nCode == ECONNRESET ? OrvoString("OrvoConnection::receive: connection closed by peer")
                                                : OrvoString("OrvoConnection::receive: ") + std::strerror(nCode),
                            nCode);
    }
}

void OrvoConnection::protocolError(const char* pszWhat, int nCode) {
    // The stream position is lost: nothing after this value can be trusted.
    disconnect();
    throw OrvoException(OrvoString("OrvoConnection::receive: ") + pszWhat, nCode);
}

// Reads one tagged value whose body is bodySize bytes (a string's length for
// strings). Returns the decoded integer, or a string's length.
long OrvoConnection::readTagged(char expectedTag, int bodySize) {
    char buf[1 + 8];
    receiveAll(buf, 1);
    Codec::Value value;
    std::size_t nUsed = 0;
    int nError = 0;

    if (buf[0] == Codec::kTagError) {
        receiveAll(buf + 1, 8);
        if (Codec::decode(buf, sizeof buf, value, nUsed, nError) == Codec::Result::bad)
            protocolError("malformed error value", nError);
        const int nCode = static_cast<int>(static_cast<std::int32_t>(Codec::loadBE32(buf + 1)));
        OrvoString sMessage(Codec::loadBE32(buf + 5), '\0');
        receiveAll(sMessage.data(), static_cast<long>(sMessage.size()));
        // The daemon closes after an error value; closing here too means the
        // next request reopens at once instead of racing that close.
        disconnect();
        throw OrvoException(sMessage, nCode);
    }
    if (buf[0] != expectedTag) {
        const OrvoString sWhat = OrvoString("unexpected tag '") + buf[0] + "' instead of '" + expectedTag + "'";
        protocolError(sWhat.c_str(), EPROTO);
    }
    receiveAll(buf + 1, bodySize);
    switch (Codec::decode(buf, static_cast<std::size_t>(1 + bodySize), value, nUsed, nError)) {
    case Codec::Result::bad:
        protocolError(nError == EMSGSIZE ? "length out of range" : "malformed value", nError);
    case Codec::Result::indeterminate:  // a string whose body follows
        return static_cast<long>(Codec::loadBE32(buf + 1));
    case Codec::Result::good:
        break;
    }
    return static_cast<long>(value.integer);
}

void OrvoConnection::transfer(const OrvoString& sValue) {
    if (sValue.size() > Codec::kMaxStringLength)
        throw OrvoException("OrvoConnection::transfer: string longer than the wire allows", EMSGSIZE);
    char header[Codec::kStringHeaderSize];
    Codec::storeStringHeader(header, static_cast<std::uint32_t>(sValue.size()));
    transferAll(header, sizeof header);
    if (!sValue.empty()) transferAll(sValue.data(), static_cast<long>(sValue.size()));
}

void OrvoConnection::transfer(int nValue) {
    char buf[Codec::kMaxScalarSize];
    transferAll(buf, static_cast<long>(Codec::encodeInt(buf, nValue)));
}

void OrvoConnection::transfer(short nValue) {
    char buf[Codec::kMaxScalarSize];
    transferAll(buf, static_cast<long>(Codec::encodeShort(buf, nValue)));
}

void OrvoConnection::transfer(long nValue) {
    char buf[Codec::kMaxScalarSize];
    transferAll(buf, static_cast<long>(Codec::encodeLong(buf, nValue)));
}

void OrvoConnection::transfer(bool bValue) {
    char buf[Codec::kMaxScalarSize];
    transferAll(buf, static_cast<long>(Codec::encodeBool(buf, bValue)));
}

OrvoString OrvoConnection::receiveString() {
    const long nLength = readTagged(Codec::kTagString, 4);
    OrvoString sValue(static_cast<std::size_t>(nLength), '\0');
    receiveAll(sValue.data(), nLength);
    return sValue;
}

int OrvoConnection::receiveInt() { return static_cast<int>(readTagged(Codec::kTagInt, 4)); }

short OrvoConnection::receiveShort() { return static_cast<short>(readTagged(Codec::kTagShort, 2)); }

long OrvoConnection::receiveLong() { return readTagged(Codec::kTagLong, 8); }

bool OrvoConnection::receiveBool() { return readTagged(Codec::kTagBool, 1) != 0; }

}  // namespace OrvoNet
