#ifndef KSD_SERVER_CONNECTION_H
#define KSD_SERVER_CONNECTION_H

// One client connection: parses requests one after another, hands each whole
// request to its service and writes the reply with its trailer in one write.
// An idle connection stays open; a begun request must be whole in time, and a
// reply must be taken by the client in time. Memory per connection is bounded:
// read-ahead while serving, one reply, and the user's budget for requests.

#include <array>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "net/endpoints.h"
#include "protocol/request_catalog.h"
#include "protocol/request_parser.h"
#include "server/server_limits.h"

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
    void stop();

    bool isOpen() const { return mode_ != Mode::Closed; }
    const PeerInfo& peer() const { return peer_; }

    // From the current request's responder.
    void sendReply(std::string encodedFields);
    void sendError(int code, std::string_view message, bool drain);

private:
    enum class Mode { Reading, Serving, Writing, Failing, Draining, Closed };
    enum class Deadline { Request, Reply, Error };

    void waitReadable();
    void pauseForBudget();
    void onBytes(const char* data, std::size_t n);
    void serveInput();
    void consume(const char* data, std::size_t size, bool buffered);
    void dispatch();
    void replyWritten();
    void holdPending(std::size_t bytes);
    void releasePending();
    void armRequestTimer();
    void armTimer(std::chrono::milliseconds after, Deadline kind);
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
    bool readLooping_ = false;  // in waitReadable's loop: a nested call only asks for another turn
    bool readAgain_ = false;
    bool mayHaveMore_ = false;  // the last read filled its buffer
    bool paused_ = false;       // waiting for the user's pending-bytes budget
    bool inDispatch_ = false;   // a reply written at once lets dispatch() go on
    Mode mode_ = Mode::Reading;
    bool drainAfterError_ = false;
    std::size_t drained_ = 0;
    std::size_t held_ = 0;  // bytes of the unfinished request, counted in the budget
    std::shared_ptr<ConnectionResponder> responder_;
    std::string out_;  // the reply or error being written
    // Bytes of following requests, read while one was served; parsed from
    // inPos_ on, so no request costs a copy of what follows it.
    std::string in_;
    std::size_t inPos_ = 0;
    // Where the loop's reads land: a request's first bytes arrive here without
    // a heap buffer per connection; bulk goes through the loop's shared buffer.
    std::array<char, 1024> small_;
};

}  // namespace ksd

#endif
