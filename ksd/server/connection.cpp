#include "server/connection.h"

#include <sys/socket.h>

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

// The first receive is tried at once, outside asio: a client's request often
// arrives with its connection, and so its reply leaves before the listener
// takes up accepting again. Reads and writes made outside asio are
// non-blocking by their flags, so the socket's own mode is left to asio.
void Connection::start() {
    mayHaveMore_ = true;
    waitReadable();
}

void Connection::stop() { close(); }

void Connection::waitReadable() {
    if (readLooping_) {
        readAgain_ = true;
        return;
    }
    readLooping_ = true;
    do {
        readAgain_ = false;
        if (readWaiting_ || paused_ || mode_ == Mode::Closed) break;
        const bool serving = mode_ == Mode::Serving || mode_ == Mode::Writing;
        // While a request is served, read ahead only so far: a client that
        // pipelines without reading its replies stops being read.
        if (serving && in_.size() - inPos_ >= limits_.maxPipelinedBytes) break;
        if (mode_ == Mode::Reading && !manager_.budget().mayRead(peer_.uid, isRoot(peer_), held_ > 0)) {
            pauseForBudget();
            break;
        }
        if (mayHaveMore_) {
            // A full read: the rest is likely there, taken in large pieces.
            mayHaveMore_ = false;
            const ssize_t n = ::recv(socket_.native_handle(), readBuffer_.data(), readBuffer_.size(), MSG_DONTWAIT);
            if (n > 0) {
                mayHaveMore_ = static_cast<std::size_t>(n) == readBuffer_.size();
                onBytes(readBuffer_.data(), static_cast<std::size_t>(n));
                continue;
            }
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                close();
                break;
            }
        }
        // A receive rather than a readiness wait: it is tried at once when the
        // socket may hold bytes, and otherwise waits without re-arming the poller.
        readWaiting_ = true;
        socket_.async_receive(asio::buffer(small_),
                              [self = shared_from_this()](const std::error_code& ec, std::size_t n) {
                                  self->readWaiting_ = false;
                                  if (self->mode_ == Mode::Closed) return;
                                  if (ec) {
                                      self->close();
                                      return;
                                  }
                                  self->mayHaveMore_ = n == self->small_.size();
                                  self->onBytes(self->small_.data(), n);
                              });
    } while (readAgain_);
    readLooping_ = false;
}

// Back-pressure instead of buffering: the request timer keeps running, so a
// request that cannot go on is cut off at the request limit like any other.
void Connection::pauseForBudget() {
    paused_ = true;
    manager_.budget().waitForRoom(weak_from_this(), [this] {
        paused_ = false;
        waitReadable();
    });
}

void Connection::onBytes(const char* data, std::size_t n) {
    switch (mode_) {
        case Mode::Reading:
            if (inPos_ < in_.size())
                in_.append(data, n);
            else
                consume(data, n, false);
            serveInput();
            return;
        case Mode::Serving:
        case Mode::Writing:
            // Keep watching (a client that leaves must be noticed) but bounded.
            in_.append(data, n);
            waitReadable();
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

// Serves the requests already read, as long as each is answered at once.
void Connection::serveInput() {
    while (mode_ == Mode::Reading && inPos_ < in_.size()) consume(in_.data() + inPos_, in_.size() - inPos_, true);
    waitReadable();
}

// `buffered`: the bytes are in in_ at inPos_; otherwise they are the loop's
// scratch buffer, and what follows a whole request is kept in in_.
void Connection::consume(const char* data, std::size_t size, bool buffered) {
    std::size_t used = 0;
    const auto result = parser_.parse(data, size, used);
    if (buffered) {
        inPos_ += used;
    } else if (result != RequestParser::Result::indeterminate && used < size) {
        in_.assign(data + used, size - used);
        inPos_ = 0;
    }
    if (inPos_ == in_.size()) {
        releaseIfLarge(in_);
        inPos_ = 0;
    }
    if (result == RequestParser::Result::indeterminate) {
        holdPending(used);
        if (parser_.started()) armRequestTimer();
        return;
    }
    releasePending();
    cancelTimer();
    if (result == RequestParser::Result::bad) {
        ORVO_LOG(4, "ksd: connection " << static_cast<unsigned long>(peer_.connectionId) << " (" << peerText(peer_)
                                       << "): bad request (code " << parser_.errorCode()
                                       << "): " << parser_.errorMessage().c_str());
        sendError(parser_.errorCode(), parser_.errorMessage(), true);
        return;
    }
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
    inDispatch_ = true;
    try {
        handler_.handle(request);
    } catch (const std::exception& e) {
        ORVO_LOG(4, "ksd: " << request.service.c_str() << " " << request.name.c_str() << " from " << peerText(peer_)
                            << " failed: " << e.what());
        responder->fail(EIO, "internal error");
    }
    inDispatch_ = false;
}

void Connection::sendReply(std::string encodedFields) {
    if (mode_ != Mode::Serving) return;
    out_ = std::move(encodedFields);
    Codec::putShort(out_, 0);
    Codec::putShort(out_, OrvoNet::Protocol::kMagic);
    mode_ = Mode::Writing;
    // Nearly every reply fits the socket buffer: one send, no completion to wait for.
    const ssize_t sent = ::send(socket_.native_handle(), out_.data(), out_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0 && static_cast<std::size_t>(sent) == out_.size()) {
        replyWritten();
        return;
    }
    if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        close();
        return;
    }
    // The client is slow to take its reply: it gets the request limit to do so.
    armTimer(limits_.requestTimeout, Deadline::Reply);
    const std::size_t written = sent > 0 ? static_cast<std::size_t>(sent) : 0;
    asio::async_write(socket_, asio::buffer(out_.data() + written, out_.size() - written),
                      [self = shared_from_this()](const std::error_code& writeEc, std::size_t) {
                          if (self->mode_ == Mode::Closed) return;
                          if (writeEc) {
                              self->close();
                              return;
                          }
                          self->cancelTimer();
                          self->replyWritten();
                      });
}

void Connection::replyWritten() {
    responder_.reset();
    mode_ = Mode::Reading;
    parser_.reset();
    releaseIfLarge(out_);
    if (!inDispatch_) serveInput();
}

void Connection::sendError(int code, std::string_view message, bool drain) {
    if (mode_ == Mode::Closed || mode_ == Mode::Failing || mode_ == Mode::Draining || mode_ == Mode::Writing) return;
    cancelTimer();
    releasePending();
    paused_ = false;
    out_.clear();
    Codec::putError(out_, code, message);
    mode_ = Mode::Failing;
    drainAfterError_ = drain;
    drained_ = 0;
    releaseIfLarge(in_);
    inPos_ = 0;
    // One deadline for writing the error and draining after it: a client
    // that reads nothing does not keep the connection.
    armTimer(limits_.errorDrainTime, Deadline::Error);
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

void Connection::holdPending(std::size_t bytes) {
    held_ += bytes;
    manager_.budget().hold(peer_.uid, bytes);
}

void Connection::releasePending() {
    const std::size_t bytes = held_;
    held_ = 0;
    manager_.budget().release(peer_.uid, bytes);
}

void Connection::armRequestTimer() {
    if (requestTimerArmed_) return;
    armTimer(limits_.requestTimeout, Deadline::Request);
}

void Connection::armTimer(std::chrono::milliseconds after, Deadline kind) {
    requestTimerArmed_ = kind == Deadline::Request;
    const std::uint64_t generation = ++timerGeneration_;
    timer_.expires_after(after);
    timer_.async_wait([self = shared_from_this(), generation, kind](const std::error_code& ec) {
        if (ec || self->mode_ == Mode::Closed || generation != self->timerGeneration_) return;
        if (kind == Deadline::Reply)
            ORVO_LOG(4, "ksd: connection " << static_cast<unsigned long>(self->peer_.connectionId) << " ("
                                           << peerText(self->peer_) << "): reply not taken in time, closed");
        if (kind != Deadline::Request) {
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
    releasePending();
    std::error_code ignored;
    socket_.close(ignored);
    if (auto responder = std::move(responder_)) responder->connectionClosed();
    ORVO_LOG(9, "ksd: connection " << static_cast<unsigned long>(peer_.connectionId) << " closed");
    manager_.remove(this);
}

}  // namespace ksd
