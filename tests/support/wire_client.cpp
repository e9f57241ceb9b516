// Unique names, scoped environment and directories, request and frame bytes,
// and WireClient: a plain blocking socket with bounded reads, written without
// the connection library so that it checks that library rather than mirroring it.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "OrvoException.h"
#include "fake_daemon.h"

namespace kstest {

namespace Codec = OrvoNet::Codec;

std::string uniqueName(const std::string& sPrefix) {
    static std::atomic<int> s_nCounter{0};
    return sPrefix + "-" + std::to_string(getpid()) + "-" + std::to_string(++s_nCounter);
}

ScopedEnv::ScopedEnv(std::string sName, const char* pszValue) : m_sName(std::move(sName)) {
    if (const char* pszOld = std::getenv(m_sName.c_str())) m_old = pszOld;
    if (pszValue)
        setenv(m_sName.c_str(), pszValue, 1);
    else
        unsetenv(m_sName.c_str());
}

ScopedEnv::~ScopedEnv() {
    if (m_old)
        setenv(m_sName.c_str(), m_old->c_str(), 1);
    else
        unsetenv(m_sName.c_str());
}

int exceptionCode(const std::function<void()>& f, std::string* pMessage) {
    try {
        f();
    } catch (const OrvoSupport::OrvoException& e) {
        if (pMessage) *pMessage = e.getMessage();
        return e.getCode();
    }
    return 0;
}

ScopedTempDir::ScopedTempDir(const std::string& sPrefix) {
    const char* pszBase = std::getenv("TMPDIR");
    std::string sTemplate = std::string(pszBase && *pszBase ? pszBase : "/tmp") + "/" + sPrefix + "-XXXXXX";
    if (!mkdtemp(sTemplate.data())) throw std::runtime_error("mkdtemp failed for " + sTemplate);
    m_sPath = sTemplate;
}

ScopedTempDir::~ScopedTempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_sPath, ec);
}

Wire requestWire(std::string_view sService, std::string_view sRequest) {
    return Wire()
        .addShort(OrvoNet::Protocol::kProtocolVersion)
        .addShort(OrvoNet::Protocol::kMagic)
        .addString(sService)
        .addString(sRequest);
}

std::string encodeFrame(std::int32_t nId, std::string_view sPayload) {
    return Wire().addInt(nId).addInt(static_cast<std::int32_t>(sPayload.size())).addRaw(sPayload).bytes();
}

namespace {

int connectTo(int nFamily, const void* pAddr, socklen_t nLen) {
    const int fd = socket(nFamily, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, static_cast<const sockaddr*>(pAddr), nLen) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

// A name with a '/' is a path (ends with a NUL); any other is abstract (starts with one).
int connectPipe(const std::string& sName) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (sName.size() + 1 > sizeof(addr.sun_path)) return -1;
    std::memcpy(addr.sun_path + (sName.find('/') == std::string::npos), sName.data(), sName.size());
    return connectTo(AF_UNIX, &addr, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + sName.size()));
}

int connectTcp(const std::string& sHost, int nPort) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(nPort));
    if (inet_pton(AF_INET, sHost.c_str(), &addr.sin_addr) != 1) return -1;
    return connectTo(AF_INET, &addr, sizeof addr);
}

}  // namespace

WireClient::~WireClient() { close(); }

bool WireClient::connect(const std::string& sAddress) {
    close();
    if (sAddress.rfind("pipe:", 0) == 0) {
        m_fd = connectPipe(sAddress.substr(5));
    } else if (sAddress.rfind("socket:", 0) == 0) {
        const std::size_t nColon = sAddress.rfind(':');
        m_fd = connectTcp(sAddress.substr(7, nColon - 7), std::atoi(sAddress.c_str() + nColon + 1));
    }
    return m_fd >= 0;
}

bool WireClient::send(std::string_view sBytes) {
    if (m_fd < 0) return false;
    while (!sBytes.empty()) {
        ssize_t n = ::send(m_fd, sBytes.data(), sBytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sBytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

bool WireClient::fill(int nTimeoutMs, bool* pbEnded) {
    if (m_fd < 0) return false;
    pollfd p{m_fd, POLLIN, 0};
    int r;
    do r = ::poll(&p, 1, nTimeoutMs);
    while (r < 0 && errno == EINTR);
    if (r <= 0) return false;
    char buf[65536];
    const ssize_t n = ::recv(m_fd, buf, sizeof buf, 0);
    if (n <= 0) {
        if (pbEnded) *pbEnded = true;
        return false;
    }
    m_sIn.append(buf, static_cast<std::size_t>(n));
    return true;
}

bool WireClient::readValue(Codec::Value& value, int nTimeoutMs) {
    for (;;) {
        std::size_t nUsed = 0;
        int nError = 0;
        switch (Codec::decode(m_sIn.data(), m_sIn.size(), value, nUsed, nError)) {
        case Codec::Result::good:
            m_sIn.erase(0, nUsed);
            return true;
        case Codec::Result::bad:
            return false;
        case Codec::Result::indeterminate:
            if (!fill(nTimeoutMs)) return false;
        }
    }
}

bool WireClient::readReply(std::int64_t& nValue, int nTimeoutMs) {
    OrvoNet::Codec::Value value, status, magic;
    if (!readValue(value, nTimeoutMs) || !readValue(status, nTimeoutMs) || !readValue(magic, nTimeoutMs)) return false;
    nValue = value.integer;
    return true;
}

bool WireClient::readRaw(std::string& sOut, std::size_t n, int nTimeoutMs) {
    while (m_sIn.size() < n)
        if (!fill(nTimeoutMs)) return false;
    sOut = m_sIn.substr(0, n);
    m_sIn.erase(0, n);
    return true;
}

bool WireClient::waitPeerClosed(int nTimeoutMs) {
    bool bEnded = m_fd < 0;
    while (fill(nTimeoutMs, &bEnded)) m_sIn.clear();
    return bEnded;
}

void WireClient::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_sIn.clear();
}

std::string operatorQuery(const std::string& sAddress, std::string_view sWhat) {
    WireClient client;
    if (!client.connect(sAddress)) return {};
    Wire request = requestWire("KsdOperator", "KSD_OP_QUERY");
    request.addString(sWhat);
    OrvoNet::Codec::Value value;
    if (!client.send(request.bytes()) || !client.readValue(value) || value.tag != OrvoNet::Codec::kTagString) return {};
    return value.text;
}

}  // namespace kstest
