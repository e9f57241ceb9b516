// Unique names, scoped environment and directories, and wire byte builders.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "OrvoProtocol.h"
#include "fake_daemon.h"

namespace kstest {

namespace Codec = OrvoNet::Codec;

std::string uniqueName(const std::string& sPrefix) {
    static std::atomic<int> s_nCounter{0};
    return sPrefix + "-" + std::to_string(getpid()) + "-" + std::to_string(++s_nCounter);
}

ScopedEnv::ScopedEnv(std::string sName, const std::string& sValue) : m_sName(std::move(sName)) {
    if (const char* pszOld = std::getenv(m_sName.c_str())) m_old = pszOld;
    setenv(m_sName.c_str(), sValue.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
    if (m_old)
        setenv(m_sName.c_str(), m_old->c_str(), 1);
    else
        unsetenv(m_sName.c_str());
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

Wire& Wire::addShort(std::int16_t n) {
    Codec::putShort(m_sBytes, n);
    return *this;
}
Wire& Wire::addInt(std::int32_t n) {
    Codec::putInt(m_sBytes, n);
    return *this;
}
Wire& Wire::addLong(std::int64_t n) {
    Codec::putLong(m_sBytes, n);
    return *this;
}
Wire& Wire::addBool(bool b) {
    Codec::putBool(m_sBytes, b);
    return *this;
}
Wire& Wire::addString(std::string_view s) {
    Codec::putString(m_sBytes, s);
    return *this;
}
Wire& Wire::addError(std::int32_t nCode, std::string_view sMessage) {
    Codec::putError(m_sBytes, nCode, sMessage);
    return *this;
}
Wire& Wire::addRaw(std::string_view s) {
    m_sBytes.append(s);
    return *this;
}

Wire requestWire(std::string_view sService, std::string_view sRequest) {
    return Wire()
        .addShort(OrvoNet::Protocol::kProtocolVersion)
        .addShort(OrvoNet::Protocol::kMagic)
        .addString(sService)
        .addString(sRequest);
}

std::string encodeFrame(std::int32_t nId, std::string_view sPayload) {
    std::string s;
    Codec::putInt(s, nId);
    Codec::putInt(s, static_cast<std::int32_t>(sPayload.size()));
    s.append(sPayload);
    return s;
}

}  // namespace kstest
