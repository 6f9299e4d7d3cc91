#pragma once

#include "gorm/cor/curve.h"
#include "gorm/cor/properties.h"

#include <zmq.hpp>

#include <memory>
#include <string>

namespace gorm::cor {

inline constexpr const char* kPropertiesVariable = "KVO_MIDDLEWARE_PROPERTIES";

/// What a client needs to reach a server over TCP with CURVE. Immutable.
struct CurveClient {
    CurveKeys keys;
    std::string server_key;

    void Secure(zmq::socket_t& socket) const;
};

/// By the properties "secret-key-file" and "server-key", or "server-key@HOST" for one host. Null:
/// there is no server key, so the server is spoken to without CURVE. Throws Error naming an unknown
/// property or what is wrong with a known one.
std::shared_ptr<const CurveClient> CurveClientOf(const Properties& properties,
                                                 const std::string& host);

}  // namespace gorm::cor
