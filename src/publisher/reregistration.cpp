#include "publisher/reregistration.h"

#include "core/detached_thread.h"
#include "core/heartbeat.h"
#include "kvo/KvoDataPublisher.h"
#include "kvo/broker/broker_result.h"
#include "kvo/memory/memory_accessor.h"
#include "publisher/registration.h"

#include <mutex>
#include <stdexcept>

namespace kvo {
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
            // The object was destroyed, and so unregistered, while the broker answered. Without
            // this call the registration would stay.
            transfer.broker_client.Call(&DataBrokerRegistrationSync::RemovePublisher,
                                        transfer.broker_client.path()->data_stream_identifier);
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

void OnPublisherConnection(const std::shared_ptr<PublisherState>& publisher, bool connected) {
    TransferState& transfer = *publisher->transfer;
    transfer.connected_to_broker.exchange(connected);
    if (connected) {
        StartDetached([publisher] { ReregisterPublisher(*publisher); });
        return;
    }
    transfer.broker_client.ReopenReporter();
    transfer.Log(4, "KvoDataPublisher: Broker connection aborted");
    StopHeartbeat(transfer);
}

void KvoDataPublisher::Reregister() {
    ReregisterPublisher(*publisher_state);
}

}  // namespace kvo
