#pragma once

#include "publisher/publisher_state.h"

#include <string>

namespace kvo {

/// Asks the broker to register the stream. @return its BrokerResult.
[[nodiscard]] int AddPublisher(PublisherState& publisher, const std::string& publisher_key);

/// Takes over the broker's heartbeat period and starts the heartbeat.
void StartPublisherHeartbeat(PublisherState& publisher);

}  // namespace kvo
