#pragma once

#include "subscriber/subscriber_state.h"

#include <memory>

namespace kvo {

/// The connection listener: a lost connection ends heartbeat and notifications, a new one starts a
/// thread that registers again.
void OnSubscriberConnection(const std::shared_ptr<SubscriberState>& subscriber, bool connected);

/// Body of that thread.
void ReregisterSubscriber(const std::shared_ptr<SubscriberState>& subscriber);

}  // namespace kvo
