#pragma once

#include "subscriber/subscriber_state.h"

namespace kvo {

/// Asks the broker to register the subscriber. @return its BrokerResult.
[[nodiscard]] int AddSubscriber(SubscriberState& subscriber);

/// Takes over the broker's heartbeat period and starts the heartbeat.
void StartSubscriberHeartbeat(SubscriberState& subscriber);

}  // namespace kvo
