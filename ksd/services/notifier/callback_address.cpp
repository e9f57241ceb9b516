#include "services/notifier/callback_address.h"

#include <asio/ip/tcp.hpp>
#include <charconv>

namespace ksd {

namespace {
constexpr std::string_view kPipePrefix = "pipe:";
constexpr std::string_view kSocketPrefix = "socket:";
// sun_path holds 108 bytes: an abstract name uses one for its leading zero,
// a path one for its terminator.
constexpr std::size_t kMaxPipeName = 107;

bool isLoopback(const asio::ip::address& a) {
    if (a.is_v4()) return a.to_v4().is_loopback();
    const auto v6 = a.to_v6();
    if (v6.is_loopback()) return true;
    return v6.is_v4_mapped() && asio::ip::make_address_v4(asio::ip::v4_mapped, v6).is_loopback();
}
}  // namespace

GenericEndpoint CallbackAddress::endpoint() const {
    if (kind == Kind::Pipe) return pipeEndpoint(pipeName);
    return GenericEndpoint(asio::ip::tcp::endpoint(host, port));
}

AddressCheck parseCallbackAddress(std::string_view text, CallbackAddress& out) {
    if (text.substr(0, kPipePrefix.size()) == kPipePrefix) {
        std::string_view name = text.substr(kPipePrefix.size());
        if (name.size() > kMaxPipeName) return AddressCheck::Malformed;
        if (!isAbstractPipeName(name) && name.find('\0') != std::string_view::npos) return AddressCheck::Malformed;
        out.kind = CallbackAddress::Kind::Pipe;
        out.pipeName = std::string(name);
        return AddressCheck::Ok;
    }
    if (text.substr(0, kSocketPrefix.size()) != kSocketPrefix) return AddressCheck::Malformed;
    std::string_view rest = text.substr(kSocketPrefix.size());
    const auto colon = rest.rfind(':');
    if (colon == std::string_view::npos) return AddressCheck::Malformed;
    std::string_view host = rest.substr(0, colon);
    std::string_view port = rest.substr(colon + 1);
    unsigned value = 0;
    auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (port.empty() || ec != std::errc() || end != port.data() + port.size() || value == 0 || value > 65535)
        return AddressCheck::Malformed;
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    asio::ip::address address;
    if (host.empty() || host == "localhost") {
        address = asio::ip::address_v4::loopback();
    } else {
        std::error_code parseError;
        address = asio::ip::make_address(std::string(host), parseError);
        if (parseError) return AddressCheck::NotLocal;
    }
    if (!isLoopback(address)) return AddressCheck::NotLocal;
    out.kind = CallbackAddress::Kind::Tcp;
    out.host = address;
    out.port = static_cast<std::uint16_t>(value);
    return AddressCheck::Ok;
}

}  // namespace ksd
