#pragma once

#include "subscriber/subscriber_state.h"

#include <memory>
#include <string>

namespace kvo {

/// Asks for the notification port of the stream, builds the subscription for it and starts it.
void SubscribeToNotifications(const std::shared_ptr<SubscriberState>& subscriber);

/// Builds the middleware subscriber of the stream's topic, which replaces the one before. Failures
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
