#include "../core/heartbeat.h"
#include "kvo/broker/broker_result.h"
#include "notification_subscription.h"
#include "subscriber_state.h"

#include <chrono>
#include <stdexcept>
#include <thread>

namespace kvo {
namespace {

constexpr auto kRetryPause = std::chrono::seconds(1);

// What follows a registration that the broker accepted again.
void Proceed(const std::shared_ptr<SubscriberState>& subscriber) {
    SubscribeToNotifications(subscriber);
    StartSubscriberHeartbeat(*subscriber);
    const auto accessor = subscriber->registration.Get().accessor;
    if (accessor == nullptr) {
        throw std::logic_error("no shared memory to attach to again");
    }
    accessor->Reattach();
    subscriber->transfer->Log(2, "KvoDataSubscriber: proceeding");
}

}  // namespace

int AddSubscriber(SubscriberState& subscriber) {
    TransferState& transfer = *subscriber.transfer;
    const auto registration = subscriber.registration.Get();
    return transfer.broker_client.Call(
        &DataBrokerRegistrationSync::AddSubscriber, subscriber.subscriber_uuid,
        registration.data_stream_identifier, registration.remote_broker_uri, transfer.latency,
        transfer.deadline);
}

void StartSubscriberHeartbeat(SubscriberState& subscriber) {
    const int period =
        subscriber.transfer->broker_client.Call(&DataBrokerRegistrationSync::GetHeartbeatPeriod);
    StartHeartbeat(subscriber.transfer, period, subscriber.subscriber_uuid);
}

void SubscribeToNotifications(const std::shared_ptr<SubscriberState>& subscriber) {
    const std::string stream = subscriber->registration.Get().data_stream_identifier;
    const int port = subscriber->transfer->broker_client.Call(
        &DataBrokerRegistrationSync::GetNotificationPort, stream);
    InitializeNotificationSubscriber(*subscriber, stream, port);
    StartNotificationSubscription(subscriber);
}

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

}  // namespace kvo
