#pragma once

#include "gorm/cor/export.h"
#include "gorm/cor/service_loop.h"
#include "gorm/cor/serving.h"
#include "network/uri.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace gorm::cor::ps {

/// Publishes any number of topics at one `wkp.ps` address. Port 0 takes any free port.
/// Threads: created and destroyed by any thread; the rest on the loop only.
class GORM_COR_EXPORT Publisher {
public:
    /// Binds at once; throws BindError naming the address and the reason, and the process that
    /// serves the port already where that is known. The path of the URI is ignored.
    Publisher(ServiceLoop& loop, const network::uri& uri, const Serving& serving = {});
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;
    ~Publisher();

    std::uint16_t port() const;

    /// Hands the encoded sample to every subscriber of the path ("/" and the topic's name); it is
    /// out before anything that this thread sends after it. Never waits: a subscriber that does
    /// not take its messages loses them.
    void Publish(std::string_view path, std::string_view sample);

    /// Makes the path a local topic as well, if the publisher has been given a directory for that:
    /// readers and writers of this host then use memory instead of sockets. What goes wrong is
    /// logged, and the topic goes over sockets alone.
    /// @param notification the encoded sample that only says that there is something new: a late
    /// reader gets it once for many. Clients may send it themselves (LocalTopic).
    void OpenLocal(std::string_view path, std::string_view notification);
    void CloseLocal(std::string_view path);
    bool serves_local() const;

    /// As Publish, for subscribers at sockets only.
    void Relay(std::string_view path, std::string_view sample);

    /// Called on the loop for every subscription of a path (true) and its end (false).
    void OnSubscription(std::function<void(std::string_view path, bool begins)> callback);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace gorm::cor::ps
