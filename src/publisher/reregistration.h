#pragma once

#include "publisher/publisher_state.h"

#include <memory>

namespace kvo {

/// The connection listener: a lost connection ends the heartbeat, a new one starts a thread that
/// registers again.
void OnPublisherConnection(const std::shared_ptr<PublisherState>& publisher, bool connected);

/// Body of that thread.
void ReregisterPublisher(PublisherState& publisher);

}  // namespace kvo
