#include "../core/heartbeat.h"
#include "kvo/broker/broker_result.h"
#include "publisher_state.h"

#include <stdexcept>

namespace kvo {
namespace {

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

void ReregisterPublisher(PublisherState& publisher) {
    TransferState& transfer = *publisher.transfer;
    const std::lock_guard one_run(publisher.reregistration);
    if (transfer.closed) {
        return;
    }
    transfer.Log(2, "KvoDataPublisher: Reregister at Broker...");
    try {
        if (AddPublisher(publisher, publisher.registration.Get().publisher_key) != kRegistered) {
            transfer.Log(4, "KvoDataPublisher: Error reregistering Publisher");
            return;
        }
        if (transfer.closed) {
            // Destroyed, and so unregistered, meanwhile: nobody else would ever remove it.
            transfer.broker_client.Call(&DataBrokerRegistrationSync::RemovePublisher,
                                        StreamOf(publisher));
            return;
        }
        publisher.registered = true;
        StartPublisherHeartbeat(publisher);
        transfer.connected_to_broker = true;
        const auto accessor = transfer.broker_client.path()->accessor;
        if (accessor == nullptr) {
            throw std::logic_error("no shared memory to attach to again");
        }
        accessor->Reattach();
        transfer.Log(2, "KvoDataPublisher: proceeding");
    } catch (const std::exception& error) {
        transfer.LogException(error, "KvoDataPublisher: Reregister()");
    }
}

}  // namespace kvo
