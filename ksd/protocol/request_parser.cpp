#include "protocol/request_parser.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace ksd {

namespace Codec = OrvoNet::Codec;

namespace {

char tagOf(FieldKind kind) {
    switch (kind) {
        case FieldKind::Short:
            return Codec::kTagShort;
        case FieldKind::Int:
            return Codec::kTagInt;
        case FieldKind::Long:
            return Codec::kTagLong;
        case FieldKind::Bool:
            return Codec::kTagBool;
        case FieldKind::String:
            return Codec::kTagString;
        default:
            return 0;
    }
}

const char* nameOf(char tag) {
    switch (tag) {
        case Codec::kTagShort:
            return "short";
        case Codec::kTagInt:
            return "int";
        case Codec::kTagLong:
            return "long";
        case Codec::kTagBool:
            return "bool";
        case Codec::kTagString:
            return "string";
        default:
            return "value";
    }
}

std::string describeTag(char tag) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02x", static_cast<unsigned char>(tag));
    return buf;
}

// Partial values larger than this are not worth keeping the memory of.
constexpr std::size_t kKeepPendingCapacity = 256 * 1024;
// A raw run grows as its bytes arrive; a declared length alone buys no memory.
constexpr std::size_t kMaxRawReserve = 1024 * 1024;

}  // namespace

RequestParser::RequestParser(const RequestCatalog& catalog, ParserLimits limits) : catalog_(catalog), limits_(limits) {}

void RequestParser::reset() {
    state_ = State::Version;
    started_ = false;
    plan_ = nullptr;
    spec_ = {};
    if (pending_.capacity() > kKeepPendingCapacity) std::string().swap(pending_);
    pending_.clear();
    raw_ = {};
    service_.clear();
    request_.clear();
    fields_.clear();
    errorCode_ = 0;
    errorMessage_.clear();
}

RequestParser::Result RequestParser::fail(int code, std::string message) {
    state_ = State::Failed;
    errorCode_ = code;
    errorMessage_ = std::move(message);
    return Result::bad;
}

RequestParser::Result RequestParser::decodeNext(const char* data, std::size_t size, char tag, std::uint32_t maxString,
                                                Value& value, std::size_t& used) {
    used = 0;
    // The tag is checked on its own first byte, before any body is awaited.
    const char first = pending_.empty() ? data[0] : pending_[0];
    if (first != tag) return fail(EPROTO, std::string("expected ") + nameOf(tag) + ", got tag " + describeTag(first));
    int error = 0;
    std::size_t took = 0;
    if (pending_.empty()) {
        Result r = Codec::decode(data, size, value, took, error, maxString);
        if (r == Result::good) {
            used = took;
            return r;
        }
        if (r == Result::bad) return fail(error, error == EMSGSIZE ? "length out of range" : "malformed value");
        pending_.assign(data, size);
        used = size;
        return r;
    }
    const std::size_t before = pending_.size();
    pending_.append(data, size);
    Result r = Codec::decode(pending_.data(), pending_.size(), value, took, error, maxString);
    if (r == Result::good) {
        used = took - before;
        pending_.clear();
        return r;
    }
    if (r == Result::bad) return fail(error, error == EMSGSIZE ? "length out of range" : "malformed value");
    used = size;
    return r;
}

RequestParser::Result RequestParser::parse(const char* data, std::size_t size, std::size_t& consumed) {
    consumed = 0;
    if (state_ == State::Done) return Result::good;
    if (state_ == State::Failed) return Result::bad;
    for (;;) {
        if (state_ == State::Fields) {
            Result r = nextField();
            if (r != Result::indeterminate) return r;
        }
        if (consumed == size) return Result::indeterminate;
        started_ = true;

        if (state_ == State::Raw) {
            const std::uint64_t missing = spec_.rawLength - raw_.text.size();
            const std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(missing, size - consumed));
            raw_.text.append(data + consumed, take);
            consumed += take;
            if (raw_.text.size() < spec_.rawLength) return Result::indeterminate;
            fields_.push_back(std::move(raw_));
            raw_ = {};
            state_ = State::Fields;
            continue;
        }

        char tag = Codec::kTagShort;
        std::uint32_t maxString = limits_.maxString;
        if (state_ == State::Service || state_ == State::Request) {
            tag = Codec::kTagString;
            maxString = limits_.maxNameLength;
        } else if (state_ == State::Fields) {
            tag = tagOf(spec_.kind);
        }
        Value value;
        std::size_t used = 0;
        Result r = decodeNext(data + consumed, size - consumed, tag, maxString, value, used);
        consumed += used;
        if (r != Result::good) return r;
        r = onValue(value);
        if (r != Result::indeterminate) return r;
    }
}

RequestParser::Result RequestParser::onValue(Value& value) {
    switch (state_) {
        case State::Version:
            if (value.integer != OrvoNet::Protocol::kProtocolVersion)
                return fail(EPROTO, "unsupported protocol version " + std::to_string(value.integer));
            state_ = State::Magic;
            break;
        case State::Magic:
            if (value.integer != OrvoNet::Protocol::kMagic) return fail(EPROTO, "bad magic " + std::to_string(value.integer));
            state_ = State::Service;
            break;
        case State::Service:
            service_ = std::move(value.text);
            if (!catalog_.serves(service_)) return fail(ENOSYS, "unknown service '" + service_ + "'");
            state_ = State::Request;
            break;
        case State::Request:
            request_ = std::move(value.text);
            plan_ = catalog_.plan(service_, request_);
            if (plan_ == nullptr)
                return fail(ENOSYS, "unknown request '" + request_ + "' of service '" + service_ + "'");
            state_ = State::Fields;
            break;
        case State::Fields:
            fields_.push_back(std::move(value));
            break;
        default:
            break;
    }
    return Result::indeterminate;
}

// Asks the plan what comes next; good when nothing does.
RequestParser::Result RequestParser::nextField() {
    for (;;) {
        spec_ = (*plan_)(fields_);
        switch (spec_.kind) {
            case FieldKind::Done:
                state_ = State::Done;
                return Result::good;
            case FieldKind::Invalid:
                return fail(spec_.errorCode != 0 ? spec_.errorCode : EPROTO,
                            "invalid field " + std::to_string(fields_.size()) + " of " + request_);
            case FieldKind::Raw:
                if (spec_.rawLength > limits_.maxRaw)
                    return fail(EMSGSIZE, "raw run of " + std::to_string(spec_.rawLength) + " bytes exceeds the limit");
                if (spec_.rawLength == 0) {
                    fields_.push_back(Value{});
                    continue;
                }
                raw_ = {};
                raw_.text.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(spec_.rawLength, kMaxRawReserve)));
                state_ = State::Raw;
                return Result::indeterminate;
            default:
                return Result::indeterminate;
        }
    }
}

}  // namespace ksd
