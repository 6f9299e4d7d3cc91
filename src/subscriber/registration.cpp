#include "subscriber/registration.h"

#include "core/heartbeat.h"
#include "kvo/KvoDataSubscriber.h"
#include "kvo/broker/broker_result.h"
#include "kvo/os/fork_guard.h"
#include "subscriber/notification_subscription.h"
#include "subscriber/reregistration.h"

#include <utility>

namespace kvo {

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

int KvoDataSubscriber::RegisterSubscriber(std::string broker_uri,
                                          std::string data_stream_identifier,
                                          std::string remote_broker_uri, int accessor_argument) {
    if (os::InForkedChild()) {
        return -1;
    }
    subscriber_state->registration.With([&](SubscriberState::Registration& r) {
        r.broker_uri = std::move(broker_uri);
        r.data_stream_identifier = std::move(data_stream_identifier);
        r.remote_broker_uri = std::move(remote_broker_uri);
        r.accessor_argument = accessor_argument;
    });
    if (!CheckPath()) {
        return -1;
    }
    const auto checked = subscriber_state->registration.Get();
    Log(2, "KvoDataSubscriber: Broker URI: " + checked.broker_uri);
    Log(2, "KvoDataSubscriber: Remote Broker URI: " + checked.remote_broker_uri);
    auto statistics_client =
        std::make_shared<KvoStatisticsClient>(&state->logger, checked.broker_uri);
    subscriber_state->registration.With(
        [&](SubscriberState::Registration& r) { r.statistics_client.swap(statistics_client); });
    int result = InitCOR(checked.broker_uri);
    if (result != 1) {
        return result;
    }
    try {
        if (CheckPublisher() != 1) {
            return -1;
        }
        RegisterConnectionListener();
        LogSubscriberParameter();
        if (const int code = AddSubscriber(*subscriber_state); code != kRegistered) {
            result = code;
            PrintErrorMessage(code);
            return code;
        }
        StartSubscriberHeartbeat(*subscriber_state);
        const std::string path = state->broker_client.Call(
            &DataBrokerRegistrationSync::GetShmFilePath, checked.data_stream_identifier);
        subscriber_state->registration.With(
            [&](SubscriberState::Registration& r) { r.shm_path = path; });
        return CreateAccessor();
    } catch (const std::exception& error) {
        state->LogException(error, "KvoDataSubscriber: RegisterSubscriber()");
    }
    return result;
}

bool KvoDataSubscriber::CheckPath() {
    const auto given = subscriber_state->registration.Get();
    const std::string broker_uri = VerifyPathInBrokerUri(given.broker_uri);
    const std::string remote_broker_uri = given.remote_broker_uri.empty()
                                              ? std::string()
                                              : VerifyPathInBrokerUri(given.remote_broker_uri);
    subscriber_state->registration.With([&](SubscriberState::Registration& r) {
        r.broker_uri = broker_uri;
        r.remote_broker_uri = remote_broker_uri;
    });
    return !broker_uri.empty() && (given.remote_broker_uri.empty() || !remote_broker_uri.empty());
}

int KvoDataSubscriber::CheckPublisher() {
    const auto registration = subscriber_state->registration.Get();
    BrokerLink& link = state->broker_client;
    if (registration.remote_broker_uri.empty()) {
        if (link.Call(&DataBrokerRegistrationSync::HasLocalPublisher,
                      registration.data_stream_identifier)) {
            return 1;
        }
        Log(3, "KvoDataSubscriber: No local Publisher for this data stream exists");
        return -1;
    }
    if (link.Call(&DataBrokerRegistrationSync::HasRemotePublisher, registration.remote_broker_uri,
                  registration.data_stream_identifier)) {
        return 1;
    }
    Log(3, "KvoDataSubscriber: No remote Publisher for this data stream exists");
    return -1;
}

void KvoDataSubscriber::RegisterConnectionListener() {
    auto registration =
        state->broker_client.Call(&DataBrokerRegistrationSync::RegisterConnectionListener,
                                  [subscriber = subscriber_state](bool connected) {
                                      OnSubscriberConnection(subscriber, connected);
                                  });
    state->listener_registration.Release();
    state->listener_registration = std::move(registration);
}

void KvoDataSubscriber::LogSubscriberParameter() {
    const auto registration = subscriber_state->registration.Get();
    Log(1, "KvoDataSubscriber parameters:");
    Log(1, "subscriber_uuid: " + subscriber_state->subscriber_uuid);
    Log(1, "data_stream_identifier: " + registration.data_stream_identifier);
    Log(1, "remote_broker_uri: " + registration.remote_broker_uri);
    Log(1, "latency [ms]: " + std::to_string(state->latency));
    Log(1, "deadline [s]: " + std::to_string(state->deadline));
}

void KvoDataSubscriber::PrintErrorMessage(int code) {
    switch (code) {
        case kStreamInUse:
            Log(4, "KvoDataSubscriber: Data stream identifier already in use!");
            return;
        case kNotEnoughMemory:
            Log(4, "KvoDataSubscriber: Not enough memory available!");
            return;
        case kShmFileExists:
            Log(4, "KvoDataSubscriber: Shared Memory file already exists!");
            return;
        default:
            Log(4, "KvoDataSubscriber: Unhandled error code: " + std::to_string(code));
    }
}

int KvoDataSubscriber::CreateAccessor() {
    const auto registration = subscriber_state->registration.Get();
    auto accessor = std::make_shared<KvoMemoryAccessor>(
        registration.shm_path, registration.data_stream_identifier, &state->logger,
        static_cast<unsigned long>(subscriber_state->max_age_data_sample),
        registration.accessor_argument);
    const bool initialized = accessor->get_is_initialized();
    // The accessor before, if any, is deleted after the new one has taken its place; slots that
    // are connected to it end with it.
    auto installed = initialized ? accessor : nullptr;
    subscriber_state->registration.With(
        [&](SubscriberState::Registration& r) { r.accessor.swap(installed); });
    if (!initialized) {
        Log(4, "KvoDataSubscriber: KvoMemoryAccessor not initialized");
        return -1;
    }
    Log(1, "KvoDataSubscriber: KvoMemoryAccessor created");
    Log(2, "KvoDataSubscriber: Start reading...");
    accessor->StartReading();
    SubscribeToNotifications(subscriber_state);
    Log(2, "KvoDataSubscriber: Subscriber registered");
    return 1;
}

int KvoDataSubscriber::UnregisterSubscriber() {
    if (os::InForkedChild()) {
        return -1;
    }
    state->listener_registration.Release();
    StopNotificationSubscription();
    const auto [accessor, stream] =
        subscriber_state->registration.With([](const SubscriberState::Registration& r) {
            return std::pair(r.accessor, r.data_stream_identifier);
        });
    if (accessor != nullptr) {
        accessor->StopReading();
    }
    if (state->connected_to_broker) {
        try {
            state->broker_client.Call(&DataBrokerRegistrationSync::RemoveSubscriber, stream,
                                      subscriber_state->subscriber_uuid);
        } catch (const std::exception& error) {
            state->LogException(error, "KvoDataSubscriber: UnregisterSubscriber()");
        }
    }
    subscriber_state->registration.With([](SubscriberState::Registration& r) {
        return std::exchange(r.statistics_client, nullptr);
    });
    StopHeartbeat();
    return 1;
}

}  // namespace kvo
