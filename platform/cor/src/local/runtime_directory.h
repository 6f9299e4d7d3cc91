#pragma once

#include "kvo/os/trust.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

// Where the Unix sockets of servers lie: "<port>.sock", and beside it "<port>.lock", which the
// server holds locked for as long as it serves the port.
namespace gorm::cor {

inline constexpr const char* kRuntimeDirectoryVariable = "KVO_RUNTIME_DIRECTORY";

/// A place where sockets may lie.
struct RuntimeDirectory {
    std::string path;
    bool own = false;  // made by the first server that needs it, removed when it is empty
};

/// The places to look at, the best one first: what the environment names, else the service's
/// directory and one of the user's own.
std::vector<RuntimeDirectory> RuntimeDirectories();

std::string LockPath(const std::string& directory, std::uint16_t port);
/// A link to where the local topics of the port lie.
std::string TopicsPath(const std::string& directory, std::uint16_t port);
std::string SocketPath(const std::string& directory, std::uint16_t port);

/// The socket of the server that holds the port, as an endpoint of the transport; empty: there is
/// none that can be trusted and used now.
std::string FindLocalEndpoint(std::uint16_t port);

/// Where the local topics of the publisher lie that holds the port; empty: as above.
std::string FindLocalTopics(std::uint16_t port);

}  // namespace gorm::cor
