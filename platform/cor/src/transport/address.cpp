#include "transport/address.h"

#include "gorm/cor/errors.h"
#include "gorm/cor/serving.h"
#include "transport/bounds.h"

#include <charconv>
#include <string_view>

namespace gorm::cor {
namespace {

bool ParsePort(std::string_view text, std::uint16_t& port) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size();
}

Address Parse(const network::uri& uri, const char* scheme, bool any_port) {
    const auto refuse = [&uri](const std::string& reason) {
        return Error("\"" + uri.string() + "\" names no usable address: " + reason);
    };
    if (uri.scheme() != scheme) {
        throw refuse(std::string("the scheme is not ") + scheme);
    }
    std::uint16_t port = 0;
    if (!ParsePort(uri.port(), port)) {
        throw refuse(uri.port().empty() ? "it has no port" : "the port is no number up to 65535");
    }
    if (port == 0 && !any_port) {
        throw refuse("the port is 0");
    }
    // The path travels with each message and has to leave room for it.
    if (uri.path().size() > kMaxRequestBytes / 16) {
        throw refuse("the path is too long");
    }
    const std::string host(uri.host());
    const bool ipv6 = host.find(':') != std::string::npos;
    return Address{uri.string(),
                   "tcp://" + (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port),
                   std::string(uri.path()),
                   ipv6,
                   host,
                   port,
                   nullptr};
}

}  // namespace

bool IsLoopback(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

bool Address::PrefersLocal() const {
    return host == "127.0.0.1" || host == "localhost" || host == "::1";
}

bool Address::ServesLocal() const {
    return PrefersLocal() || host == "0.0.0.0" || host == "::" || host == "*";
}

Address Address::ToConnect(const network::uri& uri, const char* scheme) {
    return Parse(uri, scheme, false);
}

Address Address::ToBind(const network::uri& uri, const char* scheme) {
    return Parse(uri, scheme, true);
}

std::uint16_t PortOf(const std::string& endpoint) {
    std::uint16_t port = 0;
    ParsePort(std::string_view(endpoint).substr(endpoint.rfind(':') + 1), port);
    return port;
}

}  // namespace gorm::cor
