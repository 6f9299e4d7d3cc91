#pragma once

#include "network/uri.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace gorm::cor {

struct CurveClient;

inline constexpr const char* kRequestScheme = "wkp.rr";
inline constexpr const char* kTopicScheme = "wkp.ps";

/// Where a URI of the binding leads.
struct Address {
    std::string text;      // the URI, for messages
    std::string endpoint;  // of the transport: tcp://host:port
    std::string path;      // with its first slash
    bool ipv6 = false;
    std::string host;  // without brackets
    std::uint16_t port = 0;
    std::shared_ptr<const CurveClient> curve;  // null: none

    /// Whether a client prefers the Unix socket of the port.
    bool PrefersLocal() const;
    /// Whether a server there serves such clients.
    bool ServesLocal() const;

    /// Throws Error naming the URI and what is wrong with it: not this scheme, no port.
    static Address ToConnect(const network::uri& uri, const char* scheme);
    /// As ToConnect; port 0 is any free one.
    static Address ToBind(const network::uri& uri, const char* scheme);
};

/// The port at the end of an endpoint.
std::uint16_t PortOf(const std::string& endpoint);

}  // namespace gorm::cor
