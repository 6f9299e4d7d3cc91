#pragma once

#include "gorm/cor/curve.h"
#include "gorm/cor/export.h"
#include "kvo/os/file_access.h"

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace gorm::cor {

/// How a server or publisher can be reached beside TCP.
struct Serving {
    /// A Unix socket too, where the address is one that only this host reaches as 127.0.0.1,
    /// localhost or ::1, or all addresses. In this directory, which is made when it is missing;
    /// empty: where the clients look for it (docs/protocol.md). None: TCP only. Where no socket
    /// can be made there a warning is logged.
    std::optional<std::string> runtime_directory;
    /// Where a publisher keeps its local topics; made when it is missing, with what lies in it
    /// owned by the publisher. Empty: there are none.
    std::string topic_directory;
    kvo::os::FileAccess topic_access;
    /// Not empty: shown to a process that tries to serve the same port of this host.
    std::string note = "server";
    /// Peers over TCP need a key that is allowed; null: TCP asks for none. Does not hold for the
    /// Unix socket.
    std::shared_ptr<CurveServer> curve;
};

/// Whether only this host can reach the address: 127.0.0.0/8, ::1 or localhost.
[[nodiscard]] GORM_COR_EXPORT bool IsLoopback(const std::string& host);

}  // namespace gorm::cor
