#include "subscriber/reregistration.h"

#include "core/detached_thread.h"
#include "core/heartbeat.h"
#include "kvo/KvoDataSubscriber.h"
#include "kvo/broker/broker_result.h"
#include "subscriber/notification_subscription.h"
#include "subscriber/registration.h"

#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace kvo {
namespace {

constexpr auto kRetryPause = std::chrono::seconds(1);

// What follows a registration that the broker accepted again.
void Proceed(const std::shared_ptr<SubscriberState>& subscriber) {
    SubscribeToNotifications(subscriber);
    StartSubscriberHeartbeat(*subscriber);
    const auto accessor = subscriber->accessor();
    if (accessor == nullptr) {
        throw std::logic_error("no shared memory to attach to again");
    }
    accessor->Reattach();
    subscriber->transfer->Log(2, "KvoDataSubscriber: proceeding");
}

}  // namespace

void ReregisterSubscriber(const std::shared_ptr<SubscriberState>& subscriber) {
    TransferState& transfer = *subscriber->transfer;
    const std::lock_guard one_run(subscriber->reregistration);
    if (transfer.closed) {
        return;
    }
    transfer.Log(2, "KvoDataSubscriber: Reregister at Broker...");
    bool refused = false;
    for (int attempt = 0; attempt < subscriber->reregistration_attempts && !transfer.closed;
         ++attempt) {
        refused = true;
        try {
            refused = AddSubscriber(*subscriber) != kRegistered;
            if (!refused) {
                Proceed(subscriber);
                return;
            }
            transfer.Log(4, "KvoDataSubscriber: Error reregistering Subscriber, try again...");
            std::this_thread::sleep_for(kRetryPause);
        } catch (const std::exception& error) {
            transfer.LogException(error, "KvoDataSubscriber: Reregister()");
        }
    }
    if (refused && !transfer.closed) {
        transfer.Log(4,
                     "KvoDataSubscriber: Reregistration failed. Please check the publisher and "
                     "restart the subscriber.");
    }
}

void OnSubscriberConnection(const std::shared_ptr<SubscriberState>& subscriber, bool connected) {
    TransferState& transfer = *subscriber->transfer;
    transfer.connected_to_broker.exchange(connected);
    if (connected) {
        StartDetached([subscriber] { ReregisterSubscriber(subscriber); });
        return;
    }
    transfer.Log(4, "KvoDataSubscriber: Broker connection aborted");
    StopHeartbeat(transfer);
    StopNotificationSubscription(*subscriber);
}

void KvoDataSubscriber::Reregister() {
    ReregisterSubscriber(subscriber_state);
}

}  // namespace kvo
