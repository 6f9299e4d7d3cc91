#pragma once

#include "subscriber_state.h"

#include <memory>
#include <string>

namespace kvo {

/// Builds the middleware subscriber for the stream's topic; it replaces the one before. Failures
/// are logged.
void InitializeNotificationSubscriber(SubscriberState& subscriber,
                                      const std::string& data_stream_identifier, int port);

/// Starts the subscriber thread, which delivers notifications until it is stopped; a thread that
/// was started before ends.
void StartNotificationSubscription(const std::shared_ptr<SubscriberState>& subscriber);

/// Ends the delivery; does not wait for it.
void StopNotificationSubscription(SubscriberState& subscriber);

/// Ends the subscriber thread and the delivery, for good. Waits for a notification in progress,
/// except from inside it.
void ReleaseNotifications(SubscriberState& subscriber);

}  // namespace kvo
