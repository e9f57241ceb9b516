#include "server/connection.h"

#include <asio/write.hpp>
#include <cerrno>
#include <exception>
#include <utility>

#include "OrvoLogging.h"
#include "server/connection_manager.h"
#include "server/connection_responder.h"

namespace ksd {

namespace Codec = OrvoNet::Codec;

namespace {
// A reply buffer that grew for one large answer is not kept for the next.
constexpr std::size_t kKeepBufferCapacity = 1024 * 1024;

void releaseIfLarge(std::string& s) {
    if (s.capacity() > kKeepBufferCapacity) std::string().swap(s);
    s.clear();
}
}  // namespace

Connection::Connection(GenericSocket socket, PeerInfo peer, ConnectionManager& manager, RequestHandler& handler,
                       const ServerLimits& limits, std::vector<char>& readBuffer)
    : socket_(std::move(socket)),
      peer_(peer),
      manager_(manager),
      handler_(handler),
      limits_(limits),
      readBuffer_(readBuffer),
      parser_(handler, limits.parser),
      timer_(socket_.get_executor()) {}

void Connection::start() {
    std::error_code ec;
    socket_.non_blocking(true, ec);
    waitReadable();
}

void Connection::startRejected(int code, std::string message) {
    rejectCode_ = code;
    rejectMessage_ = std::move(message);
    start();
    // A rejected client that never speaks is not kept waiting for.
    armTimer(limits_.requestTimeout, true);
}

void Connection::stop() { close(); }

void Connection::waitReadable() {
    if (readWaiting_ || mode_ == Mode::Closed) return;
    readWaiting_ = true;
    socket_.async_wait(GenericSocket::wait_read, [self = shared_from_this()](const std::error_code& ec) {
        self->readWaiting_ = false;
        if (self->mode_ == Mode::Closed) return;
        if (ec) {
            self->close();
            return;
        }
        self->onReadable();
    });
}

void Connection::onReadable() {
    std::error_code ec;
    const std::size_t n = socket_.read_some(asio::buffer(readBuffer_), ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again) {
        waitReadable();
        return;
    }
    if (ec || n == 0) {
        close();
        return;
    }
    switch (mode_) {
        case Mode::Reading:
            if (rejectCode_ != 0) {
                sendError(rejectCode_, rejectMessage_, true);
                return;
            }
            consume(readBuffer_.data(), n);
            return;
        case Mode::Serving:
        case Mode::Writing:
            // Keep watching (a client that leaves must be noticed) but bounded.
            pipelined_.append(readBuffer_.data(), n);
            if (pipelined_.size() < limits_.maxPipelinedBytes) waitReadable();
            return;
        case Mode::Failing:
        case Mode::Draining:
            drained_ += n;
            if (drained_ > limits_.errorDrainBytes) {
                close();
                return;
            }
            waitReadable();
            return;
        case Mode::Closed:
            return;
    }
}

void Connection::consume(const char* data, std::size_t size) {
    std::size_t used = 0;
    const auto result = parser_.parse(data, size, used);
    data += used;
    size -= used;
    if (result == RequestParser::Result::indeterminate) {
        if (parser_.started()) armRequestTimer();
        waitReadable();
        return;
    }
    cancelTimer();
    if (result == RequestParser::Result::bad) {
        ORVO_LOG(4, "ksd: connection " << static_cast<unsigned long>(peer_.connectionId) << " (" << peerText(peer_)
                                       << "): bad request (code " << parser_.errorCode()
                                       << "): " << parser_.errorMessage().c_str());
        sendError(parser_.errorCode(), parser_.errorMessage(), true);
        return;
    }
    pipelined_.assign(data, size);
    dispatch();
}

void Connection::dispatch() {
    mode_ = Mode::Serving;
    auto responder = std::make_shared<ConnectionResponder>(weak_from_this());
    responder_ = responder;
    Request request{std::move(parser_.service()), std::move(parser_.request()), std::move(parser_.fields()), peer_,
                    responder};
    ORVO_LOG(9, "ksd: connection " << static_cast<unsigned long>(peer_.connectionId) << ": " << request.service.c_str()
                                   << " " << request.name.c_str());
    try {
        handler_.handle(request);
    } catch (const std::exception& e) {
        ORVO_LOG(4, "ksd: " << request.service.c_str() << " " << request.name.c_str() << " from " << peerText(peer_)
                             << " failed: " << e.what());
        responder->fail(EIO, "internal error");
    }
    waitReadable();
}

void Connection::sendReply(std::string encodedFields) {
    if (mode_ != Mode::Serving) return;
    out_ = std::move(encodedFields);
    Codec::putShort(out_, 0);
    Codec::putShort(out_, OrvoNet::Protocol::kMagic);
    mode_ = Mode::Writing;
    asio::async_write(socket_, asio::buffer(out_), [self = shared_from_this()](const std::error_code& ec, std::size_t) {
        if (self->mode_ == Mode::Closed) return;
        if (ec) {
            self->close();
            return;
        }
        self->onReplyWritten();
    });
}

void Connection::onReplyWritten() {
    responder_.reset();
    mode_ = Mode::Reading;
    parser_.reset();
    releaseIfLarge(out_);
    if (pipelined_.empty()) {
        waitReadable();
        return;
    }
    replay_.swap(pipelined_);
    pipelined_.clear();
    consume(replay_.data(), replay_.size());
    releaseIfLarge(replay_);
}

void Connection::sendError(int code, std::string_view message, bool drain) {
    if (mode_ == Mode::Closed || mode_ == Mode::Failing || mode_ == Mode::Draining || mode_ == Mode::Writing) return;
    cancelTimer();
    out_.clear();
    Codec::putError(out_, code, message);
    mode_ = Mode::Failing;
    drainAfterError_ = drain;
    drained_ = 0;
    pipelined_.clear();
    // One deadline for writing the error and draining after it: a client
    // that reads nothing does not keep the connection.
    armTimer(limits_.errorDrainTime, false);
    asio::async_write(socket_, asio::buffer(out_), [self = shared_from_this()](const std::error_code& ec, std::size_t) {
        if (self->mode_ == Mode::Closed) return;
        if (ec || !self->drainAfterError_) {
            self->close();
            return;
        }
        std::error_code ignored;
        self->socket_.shutdown(GenericSocket::shutdown_send, ignored);
        self->mode_ = Mode::Draining;
        self->waitReadable();
    });
    waitReadable();
}

void Connection::armRequestTimer() {
    if (requestTimerArmed_) return;
    armTimer(limits_.requestTimeout, true);
}

void Connection::armTimer(std::chrono::milliseconds after, bool isRequestLimit) {
    requestTimerArmed_ = isRequestLimit;
    const std::uint64_t generation = ++timerGeneration_;
    timer_.expires_after(after);
    timer_.async_wait([self = shared_from_this(), generation, isRequestLimit](const std::error_code& ec) {
        if (ec || self->mode_ == Mode::Closed || generation != self->timerGeneration_) return;
        if (!isRequestLimit || self->rejectCode_ != 0) {
            self->close();
            return;
        }
        ORVO_LOG(4, "ksd: connection " << static_cast<unsigned long>(self->peer_.connectionId) << " ("
                                       << peerText(self->peer_) << "): request not whole in time, cut off");
        self->sendError(ETIMEDOUT,
                        "request not complete within " + std::to_string(self->limits_.requestTimeout.count()) + " ms",
                        false);
    });
}

void Connection::cancelTimer() {
    requestTimerArmed_ = false;
    ++timerGeneration_;
    timer_.cancel();
}

void Connection::close() {
    if (mode_ == Mode::Closed) return;
    mode_ = Mode::Closed;
    cancelTimer();
    std::error_code ignored;
    socket_.close(ignored);
    if (auto responder = std::move(responder_)) responder->connectionClosed();
    ORVO_LOG(9, "ksd: connection " << static_cast<unsigned long>(peer_.connectionId) << " closed");
    manager_.remove(this);
}

}  // namespace ksd
