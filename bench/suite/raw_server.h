#ifndef KS_BENCH_SUITE_RAW_SERVER_H
#define KS_BENCH_SUITE_RAW_SERVER_H

// The raw limit a daemon is measured against: a minimal epoll server on an
// abstract Unix socket, in a process of its own as ksd is, that answers every
// request of a known size with a fixed reply and closes a connection when its
// client does. It decodes nothing: what is left is the cost of the sockets.

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <string>

namespace ksbench {

class RawServer {
public:
    RawServer(std::string request, std::string reply);
    ~RawServer();
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    socklen_t address(sockaddr_un& addr) const;
    const std::string& request() const { return request_; }
    const std::string& reply() const { return reply_; }

private:
    void serve();

    std::string name_;
    std::string request_;
    std::string reply_;
    int listenFd_ = -1;
    pid_t child_ = -1;
};

// Client sides of the two raw exchanges.
// One request on a connection of its own: socket, connect, write, read, close.
bool rawConnectPerRequest(const RawServer& server);
// One request on a connection kept open (`fd`, opened by rawConnect).
int rawConnect(const RawServer& server);
bool rawPingPong(int fd, const RawServer& server);

}  // namespace ksbench

#endif
