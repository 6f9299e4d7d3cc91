#pragma once

#include "kvo/brokerd/broker.h"

#include <cstdint>
#include <memory>
#include <string>

namespace kvo::brokerd {

/// Health, metrics and a read-only interface of a broker over HTTP; docs/operation.md lists the
/// paths. Serves on threads of its own for as long as it lives.
class HttpEndpoint {
public:
    /// @param port 0: any free one. @param broker must outlive this. Throws std::runtime_error
    /// naming an address that cannot be served.
    HttpEndpoint(const std::string& address, std::uint16_t port, const Broker& broker);
    HttpEndpoint(const HttpEndpoint&) = delete;
    HttpEndpoint& operator=(const HttpEndpoint&) = delete;
    ~HttpEndpoint();

    std::uint16_t port() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kvo::brokerd
