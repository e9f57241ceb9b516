// FakeDaemon: one thread accepts, one thread per connection reads a request
// and writes the next queued reply.
#include "fake_daemon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

#include "OrvoStreamConnection.h"

namespace kstest {

namespace Codec = OrvoNet::Codec;

Codec::Value Request::value(std::size_t i) const {
    Codec::Value v;
    std::size_t nAt = 0;
    for (std::size_t n = 0; n <= i + 4; ++n) {  // past version, magic, service and request name
        std::size_t nUsed = 0;
        int nError = 0;
        if (Codec::decode(bytes.data() + nAt, bytes.size() - nAt, v, nUsed, nError) != Codec::Result::good)
            throw std::out_of_range("no value " + std::to_string(i) + " in the request");
        nAt += nUsed;
    }
    return v;
}

bool FakeDaemon::start() {
    if (m_listenFd >= 0) return true;
    sockaddr_un addr;
    const unsigned nLen = OrvoNet::pipeAddress(m_sName, &addr);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), nLen) != 0 || listen(fd, 64) != 0) {
        ::close(fd);
        return false;
    }
    m_listenFd = fd;
    m_acceptor = std::thread([this] {
        for (;;) {
            const int c = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) return;  // the listener was shut down
            std::lock_guard<std::mutex> lock(m_mutex);
            m_fds.insert(c);
            m_threads.emplace_back([this, c, n = ++m_nConnections] { serve(c, n); });
        }
    });
    return true;
}

void FakeDaemon::stop() {
    if (m_listenFd < 0) return;
    shutdown(m_listenFd, SHUT_RDWR);  // ends the accept
    m_acceptor.join();
    ::close(m_listenFd);
    m_listenFd = -1;
    std::list<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStopping = true;
        for (int fd : m_fds) shutdown(fd, SHUT_RDWR);
        threads.swap(m_threads);
    }
    for (auto& t : threads) t.join();
    m_bStopping = false;
}

void FakeDaemon::serve(int fd, int nConnection) {
    char buf[65536];
    bool bClosing = false;
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0 || (n < 0 && errno == EINTR)) {
        if (n < 0 || bClosing) continue;  // after a scripted close only the client's close counts
        const Request request{nConnection, std::string(buf, static_cast<std::size_t>(n))};
        const Reply reply = next(request);
        std::string sOut = reply.fn ? reply.fn(request) : reply.values;
        if (reply.trailer) sOut += Wire().addShort(0).addShort(OrvoNet::Protocol::kMagic).bytes();
        send(fd, sOut.data(), sOut.size(), MSG_NOSIGNAL);
        if ((bClosing = reply.close)) shutdown(fd, SHUT_WR);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_nClientClosed += n == 0 && !m_bStopping;
    m_fds.erase(fd);
    ::close(fd);
    m_changed.notify_all();
}

// Records the request and takes the reply to it.
Reply FakeDaemon::next(Request r) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.push_back(std::move(r));
    m_changed.notify_all();
    if (m_replies.empty()) return {Wire().addError(ENOSYS, "no reply queued"), false, true};
    Reply reply = m_replies.front();
    if (!reply.persistent) m_replies.pop_front();
    return reply;
}

void FakeDaemon::expect(Reply reply) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_replies.push_back(std::move(reply));
}

std::vector<Request> FakeDaemon::requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

bool FakeDaemon::waitFor(const std::function<bool()>& done) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(5), done);
}

int FakeDaemon::connectionCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_nConnections;
}

}  // namespace kstest
