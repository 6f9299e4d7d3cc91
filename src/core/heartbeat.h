#pragma once

#include "core/transfer_state.h"

#include <memory>
#include <string>

namespace kvo {

/// Begins to send the id to the broker every `period` seconds, the first time after one period. A
/// heartbeat that was running ends. With a period of 0 or below nothing is started.
void StartHeartbeat(const std::shared_ptr<TransferState>& state, int period, std::string id);

/// Ends a running heartbeat and returns when its thread has left the loop; a call in flight lasts
/// up to one reply time. Throws std::future_error when another thread is stopping it already.
void StopHeartbeat(TransferState& state);

/// Ends whatever heartbeat there is, without waiting.
void AbandonHeartbeat(TransferState& state);

}  // namespace kvo
