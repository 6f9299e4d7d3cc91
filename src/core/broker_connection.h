#pragma once

#include "core/transfer_state.h"
#include "gorm/cor/cor.h"

#include <chrono>

namespace kvo {

/// Installs a client of the broker, which begins to connect. Throws what the middleware throws.
void CreateBrokerClient(TransferState& state, gorm::cor::VekFactory& factory,
                        const network::uri& broker, std::chrono::milliseconds reply_time);

/// Waits at most 10 s. @return whether the connection is established.
[[nodiscard]] bool AwaitBrokerConnection(TransferState& state);

}  // namespace kvo
