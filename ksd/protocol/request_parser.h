#ifndef KSD_PROTOCOL_REQUEST_PARSER_H
#define KSD_PROTOCOL_REQUEST_PARSER_H

// Decodes one request incrementally, whatever the chunking of its bytes: the
// header, then the fields its service's plan asks for. Never waits for or
// buffers more than the limits allow; answers good, bad or indeterminate.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "OrvoCodec.h"
#include "protocol/request_catalog.h"

namespace ksd {

struct ParserLimits {
    std::uint32_t maxNameLength = 256;                           // service and request names
    std::uint32_t maxString = OrvoNet::Codec::kMaxStringLength;  // any string field
    std::uint64_t maxRaw = OrvoNet::Codec::kMaxPushPayload;      // any raw run, whatever the plan says
};

class RequestParser {
public:
    using Result = OrvoNet::Codec::Result;

    explicit RequestParser(const RequestCatalog& catalog, ParserLimits limits = {});

    // Consumes bytes of [data, data + size) until the request is whole (good),
    // malformed (bad) or the bytes run out (indeterminate, all consumed).
    // After good or bad, call reset() before parsing the next request.
    Result parse(const char* data, std::size_t size, std::size_t& consumed);
    void reset();

    // True once any byte of the current request has been consumed.
    bool started() const { return started_; }

    // The whole request, after good (movable out).
    std::string& service() { return service_; }
    std::string& request() { return request_; }
    std::vector<Value>& fields() { return fields_; }

    // Why the request is bad: EPROTO, EMSGSIZE or ENOSYS, and a message for the client.
    int errorCode() const { return errorCode_; }
    const std::string& errorMessage() const { return errorMessage_; }

private:
    enum class State { Version, Magic, Service, Request, Fields, Raw, Done, Failed };

    Result fail(int code, std::string message);
    Result decodeNext(const char* data, std::size_t size, char tag, std::uint32_t maxString, Value& value,
                      std::size_t& used);
    Result onValue(Value& value);
    Result nextField();

    const RequestCatalog& catalog_;
    ParserLimits limits_;
    State state_ = State::Version;
    bool started_ = false;
    const FieldPlan* plan_ = nullptr;
    FieldSpec spec_;
    std::string pending_;  // a typed value split across reads
    Value raw_;            // the raw run being filled
    std::string service_;
    std::string request_;
    std::vector<Value> fields_;
    int errorCode_ = 0;
    std::string errorMessage_;
};

}  // namespace ksd

#endif
