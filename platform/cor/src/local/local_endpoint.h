#pragma once

#include "gorm/cor/serving.h"
#include "kvo/os/lock_file.h"
#include "kvo/os/thread_bound.h"
#include "local/runtime_directory.h"
#include "transport/address.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace gorm::cor {

/// A server's hold on a port of this host: its lock and the place of its Unix socket. The lock is
/// taken before anything is bound, because the transport lets a second process take over the path
/// of a socket. Threads: one.
class LocalEndpoint {
public:
    /// @param directory empty: the first of RuntimeDirectories() that can be used. @param note not
    /// empty, for a process that wants the port too. Throws LockHeld, or std::runtime_error saying
    /// why no socket can be made there.
    LocalEndpoint(const std::string& directory, std::uint16_t port, const std::string& note);
    LocalEndpoint(const LocalEndpoint&) = delete;
    LocalEndpoint& operator=(const LocalEndpoint&) = delete;
    /// Leaves nothing behind. After the socket has been unbound.
    ~LocalEndpoint();

    /// To be bound; then SetPermissions().
    std::string endpoint() const { return "ipc://" + path_; }
    /// Lets every user of this host connect: access is decided for each operation.
    /// Throws std::system_error.
    void SetPermissions() const;
    /// Shows clients where the port's local topics lie. Throws std::system_error.
    void LinkTopics(const std::string& topic_directory);

private:
    const kvo::os::ThreadBound thread_;
    const std::uint16_t port_;
    RuntimeDirectory directory_;
    std::string path_;
    std::string topics_path_;  // empty: there is none
    std::optional<kvo::os::LockFile> lock_;
};

/// Claims the port for a server there and lets it bind the Unix socket. Null: it shall have none,
/// or none can be made, which is logged. Throws BindError naming the process that has the port.
/// @param bind binds the endpoint that it is given; may throw BindError.
std::unique_ptr<LocalEndpoint> ServeLocal(const Serving& serving, const Address& address,
                                          std::uint16_t port,
                                          const std::function<void(const std::string&)>& bind);

}  // namespace gorm::cor
