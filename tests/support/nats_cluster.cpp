#include "nats_cluster.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <map>

#include "wait_until.h"

#ifndef KS_NATS_SERVER
#define KS_NATS_SERVER "/usr/bin/nats-server"
#endif

namespace kstest {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// A port the kernel had free a moment ago.
int freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(0);
    socklen_t n = sizeof a;
    int port = -1;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n) == 0)
        port = ntohs(a.sin_port);
    ::close(fd);
    return port;
}

bool accepts(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(port);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

NatsCluster::NatsCluster(int servers) {
    for (int i = 0; i < servers; ++i) {
        clientPorts_.push_back(freePort());
        routePorts_.push_back(freePort());
    }
    servers_.resize(static_cast<std::size_t>(servers));
    for (int i = 0; i < servers; ++i) up_ = start(i) && up_;
}

std::string NatsCluster::urls() const {
    std::string out;
    for (std::size_t i = 0; i < clientPorts_.size(); ++i) out += (i ? "," : "") + url(static_cast<int>(i));
    return out;
}

void NatsCluster::kill(int server) { servers_[static_cast<std::size_t>(server)].reset(); }

bool NatsCluster::start(int server) {
    std::string routes;
    for (int port : routePorts_)
        routes += (routes.empty() ? "" : ",") + std::string("nats://127.0.0.1:") + std::to_string(port);
    const std::string name = "n" + std::to_string(server);
    const auto i = static_cast<std::size_t>(server);
    servers_[i] = std::make_unique<ChildProcess>(
        KS_NATS_SERVER,
        std::vector<std::string>{"-a", "127.0.0.1", "-p", std::to_string(clientPorts_[i]), "--server_name", name,
                                 "--cluster_name", "kstest", "--cluster",
                                 "nats://127.0.0.1:" + std::to_string(routePorts_[i]), "--routes", routes, "-js", "-sd",
                                 dir_.path() + "/" + name, "-l", dir_.path() + "/" + name + ".log"},
        // One core each, as on hosts of their own: three Go runtimes that each
        // take every core of one machine spin against each other (a replicated
        // write took a third longer).
        std::map<std::string, std::string>{{"GOMAXPROCS", "1"}});
    return servers_[i]->started() && waitUntil([&] { return accepts(clientPorts_[i]); });
}

}  // namespace kstest
