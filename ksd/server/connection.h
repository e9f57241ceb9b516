#ifndef KSD_SERVER_CONNECTION_H
#define KSD_SERVER_CONNECTION_H

// One client connection: parses requests one after another, hands each whole
// request to its service and writes the reply with its trailer in one write.
// An idle connection stays open; a begun request must be whole in time.

#include <asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/request_parser.h"
#include "net/endpoints.h"
#include "server/server_limits.h"
#include "protocol/request_catalog.h"

namespace ksd {

class ConnectionManager;
class ConnectionResponder;

class Connection : public std::enable_shared_from_this<Connection> {
public:
    // `readBuffer` is the loop's one scratch buffer, shared by every connection.
    Connection(GenericSocket socket, PeerInfo peer, ConnectionManager& manager, RequestHandler& handler,
               const ServerLimits& limits, std::vector<char>& readBuffer);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void start();
    // Starts a connection that answers its first request with this error and closes.
    void startRejected(int code, std::string message);
    void stop();

    bool isOpen() const { return mode_ != Mode::Closed; }
    const PeerInfo& peer() const { return peer_; }

    // From the current request's responder.
    void sendReply(std::string encodedFields);
    void sendError(int code, std::string_view message, bool drain);

private:
    enum class Mode { Reading, Serving, Writing, Failing, Draining, Closed };

    void waitReadable();
    void onReadable();
    void consume(const char* data, std::size_t size);
    void dispatch();
    void onReplyWritten();
    void armRequestTimer();
    void armTimer(std::chrono::milliseconds after, bool isRequestLimit);
    void cancelTimer();
    void close();

    GenericSocket socket_;
    PeerInfo peer_;
    ConnectionManager& manager_;
    RequestHandler& handler_;
    const ServerLimits& limits_;
    std::vector<char>& readBuffer_;
    RequestParser parser_;
    asio::steady_timer timer_;
    std::uint64_t timerGeneration_ = 0;
    bool requestTimerArmed_ = false;
    bool readWaiting_ = false;
    Mode mode_ = Mode::Reading;
    bool drainAfterError_ = false;
    std::size_t drained_ = 0;
    int rejectCode_ = 0;
    std::string rejectMessage_;
    std::shared_ptr<ConnectionResponder> responder_;
    std::string out_;        // the reply or error being written
    std::string pipelined_;  // bytes of following requests, read while serving one
    std::string replay_;
};

}  // namespace ksd

#endif
