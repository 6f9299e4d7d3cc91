#include "publisher/registration.h"

#include "core/heartbeat.h"
#include "kvo/KvoDataPublisher.h"
#include "kvo/broker/broker_result.h"
#include "kvo/memory/memory_accessor.h"
#include "kvo/os/fork_guard.h"
#include "publisher/reregistration.h"

#include <utility>

namespace kvo {
namespace {

// The accessor's last two arguments of a writer: any age, ten samples.
constexpr unsigned long kMaxAge = 0;
constexpr int kAccessorArgument = 10;
constexpr int kMaxMetadataSize = 1500;  // bytes

std::string StreamOf(PublisherState& publisher) {
    return publisher.transfer->broker_client.path()->data_stream_identifier;
}

}  // namespace

int AddPublisher(PublisherState& publisher, const std::string& publisher_key) {
    TransferState& transfer = *publisher.transfer;
    return transfer.broker_client.Call(&DataBrokerRegistrationSync::AddPublisher,
                                       StreamOf(publisher), transfer.latency, transfer.deadline,
                                       publisher.max_data_sample_size, publisher.number_of_samples,
                                       publisher.compute_checksum, publisher_key);
}

void StartPublisherHeartbeat(PublisherState& publisher) {
    TransferState& transfer = *publisher.transfer;
    transfer.heartbeat_period =
        transfer.broker_client.Call(&DataBrokerRegistrationSync::GetHeartbeatPeriod);
    StartHeartbeat(publisher.transfer, transfer.heartbeat_period, StreamOf(publisher));
}

int KvoDataPublisher::RegisterPublisher(std::string broker_uri, std::string data_stream_identifier,
                                        bool compute_checksum) {
    if (os::InForkedChild()) {
        return -1;
    }
    publisher_state->registration.With(
        [&](PublisherState::Registration& r) { r.broker_uri = broker_uri; });
    state->broker_client.SetStream(data_stream_identifier);
    publisher_state->compute_checksum = compute_checksum;
    if (publisher_state->max_data_sample_size < 1 || publisher_state->number_of_samples < 1) {
        Log(4, "KvoDataPublisher: Error: Buffer size not set correctly");
        return -1;
    }
    broker_uri = VerifyPathInBrokerUri(broker_uri);
    publisher_state->registration.With(
        [&](PublisherState::Registration& r) { r.broker_uri = broker_uri; });
    if (broker_uri.empty()) {
        return -1;
    }
    PrintParameters();
    const int result = InitCOR(broker_uri);
    if (result != 1) {
        return result;
    }
    try {
        if (!state->broker_client.Call(&DataBrokerRegistrationSync::IsStreamIdFree,
                                       data_stream_identifier)) {
            Log(4, "KvoDataPublisher: Data stream identifier already in use!");
            return -1;
        }
        auto registration =
            state->broker_client.Call(&DataBrokerRegistrationSync::RegisterConnectionListener,
                                      [publisher = publisher_state](bool connected) {
                                          OnPublisherConnection(publisher, connected);
                                      });
        state->listener_registration.Release();
        state->listener_registration = std::move(registration);
        return Register();
    } catch (const std::exception& error) {
        state->LogException(error, "KvoDataPublisher: RegisterPublisher()");
    }
    return result;
}

int KvoDataPublisher::Register() {
    BrokerLink& link = state->broker_client;
    const std::string stream = link.path()->data_stream_identifier;
    try {
        const int result = AddPublisher(*publisher_state, "");
        if (result != kRegistered) {
            Log(4, "KvoDataPublisher: Error registering Publisher");
            if (result == kNotEnoughMemory) {
                const int most = link.Call(&DataBrokerRegistrationSync::GetMaxBufferSize,
                                           publisher_state->max_data_sample_size);
                Log(4, "KvoDataPublisher: Not enough memory available!");
                Log(4, "KvoDataPublisher: Max possible buffer size: " + std::to_string(most));
            } else if (result == kShmFileExists) {
                const std::string path =
                    link.Call(&DataBrokerRegistrationSync::GetExistingShmPath, stream);
                Log(4,
                    "KvoDataPublisher: Shared Memory file already exists. Shared Memory file "
                    "path: " +
                        path);
            }
            return result;
        }
        publisher_state->registered = true;
        StartPublisherHeartbeat(*publisher_state);
        return CreateAccessor(stream);
    } catch (const std::exception& error) {
        state->LogException(error, "KvoDataPublisher: Register()");
    }
    return -1;
}

int KvoDataPublisher::CreateAccessor(const std::string& stream) {
    BrokerLink& link = state->broker_client;
    const std::string key = link.Call(&DataBrokerRegistrationSync::GetPublisherKey, stream);
    publisher_state->registration.With(
        [&](PublisherState::Registration& r) { r.publisher_key = key; });
    const std::string path = link.Call(&DataBrokerRegistrationSync::GetShmFilePath, stream);

    auto accessor = std::make_shared<KvoMemoryAccessor>(path, stream, &state->logger, kMaxAge,
                                                        kAccessorArgument);
    accessor->SetSizeConstraints(publisher_state->max_data_sample_size, kMaxMetadataSize);
    int result = 1;
    if (!accessor->get_is_initialized()) {
        Log(4, "KvoDataPublisher: KvoMemoryAccessor not initialized");
        accessor = nullptr;
        result = -1;
    } else if (publisher_state->compute_checksum) {
        accessor->set_compute_checksum(true);
    }
    link.SetAccessor(accessor);
    Log(1, "KvoDataPublisher: KvoMemoryAccessor created");
    return result;
}

void KvoDataPublisher::PrintParameters() {
    Log(2, "KvoDataPublisher: Broker URI: " + publisher_state->registration.Get().broker_uri);
    Log(1, "KvoDataPublisher parameters:");
    Log(1, "Data_stream_identifier: " + state->broker_client.path()->data_stream_identifier);
    Log(1, "Latency: " + std::to_string(state->latency) + " [ms]");
    Log(1, "Deadline: " + std::to_string(state->deadline) + " [s]");
    Log(1, "Max_data_sample_size: " + std::to_string(publisher_state->max_data_sample_size));
    Log(1, "Number_of_samples: " + std::to_string(publisher_state->number_of_samples));
}

int KvoDataPublisher::UnregisterPublisher() {
    if (os::InForkedChild() || !publisher_state->registered) {
        return -1;
    }
    int result = -1;
    if (state->connected_to_broker) {
        try {
            result = state->broker_client.Call(&DataBrokerRegistrationSync::RemovePublisher,
                                               state->broker_client.path()->data_stream_identifier);
            publisher_state->registered = false;
        } catch (const std::exception& error) {
            state->LogException(error, "KvoDataPublisher: UnregisterPublisher()");
        }
    }
    StopHeartbeat();
    state->listener_registration.Release();
    return result;
}

}  // namespace kvo
