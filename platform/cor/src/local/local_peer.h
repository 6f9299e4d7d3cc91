#pragma once

#include "gorm/cor/peer.h"

#include <optional>
#include <string_view>

namespace gorm::cor {

/// What the transport knows of the other end of a Unix socket, "host:user:group:process", as the
/// kernel gave it. None: it is no such text.
[[nodiscard]] std::optional<LocalPeer> ParseLocalPeer(std::string_view address);

}  // namespace gorm::cor
