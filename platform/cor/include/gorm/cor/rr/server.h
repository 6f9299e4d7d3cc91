#pragma once

#include "gorm/cor/export.h"
#include "gorm/cor/rr/service.h"
#include "gorm/cor/service_loop.h"
#include "gorm/cor/serving.h"
#include "network/uri.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace gorm::cor::rr {

struct ServerOptions {
    std::size_t max_connections = 10'000;  // whose requests are answered; others get an error
    int max_pending_answers = 1000;        // of one connection that takes none; more are dropped
    Serving serving;
};

/// Serves one interface at a `wkp.rr` URI. Port 0 takes any free port.
/// Threads: created and destroyed by any thread while the loop runs or after it has stopped; the
/// service is called on the loop only.
class GORM_COR_EXPORT Server {
public:
    /// Binds at once; throws BindError naming the address and the reason, and the process that
    /// serves the port already where that is known.
    /// @param service, loop must outlive the server.
    Server(ServiceLoop& loop, const network::uri& uri, Service& service,
           const ServerOptions& options = {});
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    std::uint16_t port() const;

    /// On the loop: how many connections stand that a call has come from.
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
