#pragma once

#include "gorm/cor/export.h"
#include "gorm/cor/rr/service.h"
#include "gorm/cor/service_loop.h"
#include "network/uri.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace gorm::cor::rr {

/// Serves one interface at a `wkp.rr` URI. Port 0 takes any free port.
/// Threads: created and destroyed by any thread while the loop runs or after it has stopped; the
/// service is called on the loop only.
class GORM_COR_EXPORT Server {
public:
    /// Binds at once; throws BindError naming the address and the reason.
    /// @param service, loop must outlive the server.
    /// @param max_connections whose requests are answered; those of others get an error.
    Server(ServiceLoop& loop, const network::uri& uri, Service& service,
           std::size_t max_connections = kMaxConnections);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    static constexpr std::size_t kMaxConnections = 10'000;

    std::uint16_t port() const;

    /// On the loop: how many connections stand.
    std::size_t connections() const;

    /// Called on the loop whenever a connection ended that a call had come from. Set before
    /// clients come.
    void OnDisconnect(std::function<void(const Caller&)> callback);

    /// On the loop: whether a connection stands from which this process has called.
    bool Connected(const std::string& identity) const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace gorm::cor::rr
