// libFuzzer target for the wire codec's two decoders: Codec::decode over a
// buffer, and a connection's typed receives (here over bytes in memory).
// The input is read as a run of values. Each value decode accepts must
// re-encode to exactly the bytes it took, decode the same from any exact
// prefix, and come out of the connection the same; whatever decode refuses
// or cannot finish, the connection must refuse too.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "OrvoCodec.h"
#include "OrvoException.h"
#include "OrvoPayloadConnection.h"
#include "OrvoSmartPointer.h"

namespace {

namespace Codec = OrvoNet::Codec;

[[noreturn]] void fault(const char* what) {
    std::fprintf(stderr, "codec_fuzz: %s\n", what);
    std::abort();
}
void check(bool ok, const char* what) {
    if (!ok) fault(what);
}

std::string encodeAgain(const Codec::Value& v) {
    std::string out;
    const std::int64_t n = v.integer;
    switch (v.tag) {
        case Codec::kTagShort:
            Codec::putShort(out, static_cast<std::int16_t>(n));
            break;
        case Codec::kTagInt:
            Codec::putInt(out, static_cast<std::int32_t>(n));
            break;
        case Codec::kTagLong:
            Codec::putLong(out, n);
            break;
        case Codec::kTagBool:
            Codec::putBool(out, n != 0);
            break;
        case Codec::kTagString:
            Codec::putString(out, v.text);
            break;
        case Codec::kTagError:
            Codec::putError(out, static_cast<std::int32_t>(n), v.text);
            break;
        default:
            fault("decode accepted an unknown tag");
    }
    return out;
}

// What the wire format says of the bytes at the front of [p, p + n): the
// result, the error of a refusal and the size of a whole value.
Codec::Result expectedResult(const char* p, std::size_t n, std::uint32_t maxString, int& error, std::size_t& size) {
    if (n == 0) return Codec::Result::indeterminate;
    std::size_t fixed = 0, lengthAt = 0;
    switch (p[0]) {
        case Codec::kTagShort:
            fixed = 2;
            break;
        case Codec::kTagInt:
            fixed = 4;
            break;
        case Codec::kTagLong:
            fixed = 8;
            break;
        case Codec::kTagBool:
            fixed = 1;
            break;
        case Codec::kTagString:
            fixed = 4, lengthAt = 1;
            break;
        case Codec::kTagError:
            fixed = 8, lengthAt = 5;
            break;
        default:
            error = EPROTO;
            return Codec::Result::bad;
    }
    if (n < 1 + fixed) return Codec::Result::indeterminate;
    size = 1 + fixed;
    if (lengthAt != 0) {
        const std::int64_t len = static_cast<std::int32_t>(Codec::loadBE32(p + lengthAt));
        if (len < 0 || len > static_cast<std::int64_t>(maxString)) {
            error = EMSGSIZE;
            return Codec::Result::bad;
        }
        size += static_cast<std::size_t>(len);
        if (n < size) return Codec::Result::indeterminate;
    }
    if (p[0] == Codec::kTagBool && static_cast<unsigned char>(p[1]) > 1) {
        error = EPROTO;
        return Codec::Result::bad;
    }
    return Codec::Result::good;
}

// Reads the value the connection would read for this tag; false when it
// throws, with the exception's code and message.
bool receive(OrvoNet::OrvoConnection& c, char tag, Codec::Value& v, int& nCode, std::string& sMessage) {
    try {
        v.tag = tag;
        switch (tag) {
            case Codec::kTagShort:
                v.integer = c.receiveShort();
                break;
            case Codec::kTagInt:
                v.integer = c.receiveInt();
                break;
            case Codec::kTagLong:
                v.integer = c.receiveLong();
                break;
            case Codec::kTagBool:
                v.integer = c.receiveBool() ? 1 : 0;
                break;
            default:
                v.text = c.receiveString();
                break;
        }
        return true;
    } catch (const OrvoSupport::OrvoException& e) {
        nCode = e.getCode();
        sMessage = e.getMessage();
        return false;
    }
}

}  // namespace

// Input: [flags][values...]. Flag bit 0 selects a small string limit for
// Codec::decode, so that the over-limit path is reachable with short inputs.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size < 1) return 0;
    const std::uint32_t maxString = (bytes[0] & 1) ? 64 : Codec::kMaxStringLength;
    const char* data = reinterpret_cast<const char*>(bytes) + 1;
    const std::size_t n = size - 1;

    OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoPayloadConnection> conn(
        new OrvoNet::OrvoPayloadConnection(std::string(data, n)));
    std::size_t at = 0;
    while (at < n) {
        Codec::Value v;
        std::size_t consumed = 7;
        int error = 0;
        const Codec::Result r = Codec::decode(data + at, n - at, v, consumed, error, maxString);
        int wantError = 0;
        std::size_t wantSize = 0;
        const Codec::Result want = expectedResult(data + at, n - at, maxString, wantError, wantSize);
        check(r == want && (r != Codec::Result::bad || error == wantError) &&
                  (r != Codec::Result::good || consumed == wantSize),
              "decode differs from the wire format");
        const char tag = data[at];
        // The connection reads a value of the tag it expects; an error value
        // or an unknown tag stands in for any, so a short is asked then.
        const bool typed = tag == Codec::kTagShort || tag == Codec::kTagInt || tag == Codec::kTagLong ||
                           tag == Codec::kTagBool || tag == Codec::kTagString;
        Codec::Value got;
        int nCode = 0;
        std::string sMessage;
        // The connection checks lengths against the full limit only.
        const bool bSameLimit = maxString == Codec::kMaxStringLength;
        const bool bReceived = receive(*conn, typed ? tag : Codec::kTagShort, got, nCode, sMessage);

        if (r == Codec::Result::bad) {
            check(error == EPROTO || error == EMSGSIZE, "bad without EPROTO or EMSGSIZE");
            check(consumed == 0, "bad consumed bytes");
            if (bSameLimit) check(!bReceived && nCode == error, "the connection took a value decode refused");
            return 0;
        }
        if (r == Codec::Result::indeterminate) {
            check(consumed == 0, "indeterminate consumed bytes");
            // Only a missing body may leave decode waiting: a full buffer of
            // header bytes settles a value.
            check(n - at < 1 + 8 || tag == Codec::kTagString || tag == Codec::kTagError,
                  "indeterminate with a whole fixed-size value");
            if (bSameLimit) check(!bReceived, "the connection took a value decode could not finish");
            return 0;
        }
        check(consumed >= 2 && consumed <= n - at, "consumed out of range");
        check(v.tag == tag, "decode changed the tag");
        check(encodeAgain(v) == std::string(data + at, consumed), "re-encoding differs from the bytes taken");
        for (std::size_t cut = 0; cut < consumed; ++cut) {
            Codec::Value w;
            std::size_t took = 7;
            check(Codec::decode(data + at, cut, w, took, error, maxString) == Codec::Result::indeterminate && took == 0,
                  "a prefix of a good value is not indeterminate");
        }
        if (v.tag == Codec::kTagError) {
            check(!bReceived && nCode == v.integer && sMessage == v.text, "the connection lost an error value");
            return 0;  // the connection closes after an error value
        }
        check(bReceived && got.integer == v.integer && got.text == v.text, "the connection read another value");
        at += consumed;
    }
    return 0;
}
