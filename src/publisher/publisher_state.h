#pragma once

#include "core/guarded.h"
#include "core/transfer_state.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace kvo {

/// What a publisher adds to the state that it shares with its threads. Its stream and its accessor
/// are in the path of the broker link.
struct PublisherState {
    struct Registration {
        std::string broker_uri;
        std::string publisher_key;
    };

    explicit PublisherState(std::shared_ptr<TransferState> transfer_state)
        : transfer(std::move(transfer_state)) {}

    const std::shared_ptr<TransferState> transfer;
    const int slot_index = -1;  // the accessor picks the slot
    std::atomic<int> topic_id = 0;
    std::atomic<int> max_data_sample_size = 0;  // bytes
    std::atomic<int> number_of_samples = 0;
    std::atomic<bool> compute_checksum = false;
    std::atomic<bool> registered = false;
    Guarded<Registration> registration;
    std::mutex reregistration;  // serialises runs of ReregisterPublisher, held over their calls
};

}  // namespace kvo
