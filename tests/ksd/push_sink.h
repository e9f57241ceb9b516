// A Notifier subscriber's end, for the tests: a Unix socket on an abstract
// name (or a loopback TCP port) that the daemon pushes frames to. The test
// reads the frames itself; a stalled subscriber is one it never reads.
#pragma once
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "OrvoStreamConnection.h"
#include "fake_daemon.h"

namespace kstest {

class PushSink {
public:
    enum Kind { Pipe, Tcp, PipeNotListening };
    // A pipe sink listens on `name`: an abstract name, or a path when it has a '/'.
    explicit PushSink(Kind kind = Pipe, const std::string& name = uniqueName("kstest-sink"))
        : name_(name),
          fd_(::socket(kind == Tcp ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (kind == Tcp) {
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            socklen_t size = sizeof a;
            ::bind(fd_, reinterpret_cast<sockaddr*>(&a), size);
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &size);
            address_ = "socket:127.0.0.1:" + std::to_string(ntohs(a.sin_port));
            ::listen(fd_, 16);
        } else {
            address_ = "pipe:" + name_;
            if (kind == Pipe) listen();
        }
    }
    ~PushSink() { stop(); }
    // Listening makes the caller the socket's owner, as the kernel tells peers.
    bool listen() {
        sockaddr_un a;
        const unsigned size = OrvoNet::pipeAddress(name_, &a);
        return ::bind(fd_, reinterpret_cast<sockaddr*>(&a), size) == 0 && ::listen(fd_, 16) == 0;
    }
    void stop() {  // the subscriber goes away
        push_.close();
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }
    const std::string& address() const { return address_; }

    // The next pushed frame as "id|sender|event|text|payload": empty when none
    // comes within 10 s, "malformed" when its length disagrees with its parts.
    std::string next() {
        pollfd p{fd_, POLLIN, 0};
        if (!push_.isOpen() && ::poll(&p, 1, 10000) == 1) push_.adopt(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
        OrvoNet::Codec::Value id, len, sender, event, text, n;
        std::string payload;
        if (!push_.readValue(id, 10000) || !push_.readValue(len) || !push_.readValue(sender) ||
            !push_.readValue(event) || !push_.readValue(text) || !push_.readValue(n) ||
            !push_.readRaw(payload, std::size_t(n.integer)))
            return "";
        // Three tagged strings, a tagged long and the payload.
        if (len.integer !=
            std::int64_t(3 * 5 + 9 + sender.text.size() + event.text.size() + text.text.size() + payload.size()))
            return "malformed";
        return std::to_string(id.integer) + "|" + sender.text + "|" + event.text + "|" + text.text + "|" + payload;
    }

private:
    std::string name_, address_;
    int fd_;
    WireClient push_;
};

}  // namespace kstest
