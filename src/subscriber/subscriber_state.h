#pragma once

#include "core/guarded.h"
#include "core/transfer_state.h"
#include "gorm/cor/ps/subscriber.h"
#include "kvo/KvoStatisticsClient.h"
#include "kvo/broker/notification_sample.h"
#include "kvo/memory/memory_accessor.h"
#include "kvo/os/fork_guard.h"

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <string>

namespace kvo {

/// What a subscriber adds to the state that it shares with its threads.
struct SubscriberState {
    struct Registration {
        std::string broker_uri;
        std::string data_stream_identifier;
        std::string remote_broker_uri;  // empty: the stream is of this host
        std::string shm_path;
        int accessor_argument = 0;
        std::shared_ptr<KvoMemoryAccessor> accessor;  // null: no shared memory
        std::shared_ptr<KvoStatisticsClient> statistics_client;
    };
    struct Notifications {
        std::shared_ptr<gorm::cor::ps::Subscriber<NotificationSample>> subscriber;
        std::shared_ptr<NotificationSample> instance;  // keyed to the stream
        gorm::cor::ps::DataEventFilter<NotificationSample> filter;
        std::promise<void> stop_promise;
    };

    explicit SubscriberState(std::shared_ptr<TransferState> transfer_state)
        : transfer(std::move(transfer_state)) {}

    /// Null: no shared memory, as in a child of fork().
    std::shared_ptr<KvoMemoryAccessor> accessor() {
        return os::InForkedChild()
                   ? nullptr
                   : registration.With([](const Registration& r) { return r.accessor; });
    }

    const std::shared_ptr<TransferState> transfer;
    const int default_max_age_data_sample = 10000;  // milliseconds
    const int min_max_age_data_sample = 2000;       // milliseconds
    const int reregistration_attempts = 10;
    int max_age_data_sample = default_max_age_data_sample;  // constant after construction
    std::string subscriber_uuid;                            // constant after construction
    std::atomic<bool> event_busy = false;
    Guarded<Registration> registration;
    Guarded<Notifications> notifications;
    std::mutex reregistration;  // serialises runs of ReregisterSubscriber, held over their calls
};

}  // namespace kvo
