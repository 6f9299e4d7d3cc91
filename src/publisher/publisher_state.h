#pragma once

#include "../core/guarded.h"
#include "../core/transfer_state.h"
#include "kvo/memory/memory_accessor.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace kvo {

/// What a publisher adds to the state that it shares with its threads.
struct PublisherState {
    /// Where samples go. Replaced as a whole, so that a write takes it with one reference.
    struct Target {
        std::string data_stream_identifier;
        std::shared_ptr<KvoMemoryAccessor> accessor;  // null: no shared memory
    };
    struct Registration {
        std::string broker_uri;
        std::string shm_file_path;
        std::string publisher_key;
        std::shared_ptr<const Target> target = std::make_shared<const Target>();  // never null
    };

    explicit PublisherState(std::shared_ptr<TransferState> transfer_state)
        : transfer(std::move(transfer_state)) {}

    std::shared_ptr<const Target> target() {
        return registration.With([](const Registration& r) { return r.target; });
    }

    const std::shared_ptr<TransferState> transfer;
    const int slot_index = -1;  // the accessor picks the slot
    std::atomic<int> topic_id = 0;
    std::atomic<int> max_data_sample_size = 0;  // bytes
    std::atomic<int> number_of_samples = 0;
    std::atomic<bool> compute_checksum = false;
    std::atomic<bool> registered = false;
    Guarded<Registration> registration;
    std::mutex reregistration;  // one run at a time; held over its calls, taken by nothing else
};

/// Asks the broker to register the stream; @return its BrokerResult.
int AddPublisher(PublisherState& publisher, const std::string& publisher_key);

/// Takes over the broker's heartbeat period and starts the heartbeat.
void StartPublisherHeartbeat(PublisherState& publisher);

/// Body of the thread that registers again after the connection to the broker came back.
void ReregisterPublisher(PublisherState& publisher);

}  // namespace kvo
