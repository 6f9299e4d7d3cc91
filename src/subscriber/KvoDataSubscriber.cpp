#include "kvo/KvoDataSubscriber.h"

#include "core/configuration.h"
#include "kvo/os/fork_guard.h"
#include "subscriber/notification_subscription.h"
#include "subscriber/subscriber_state.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <stdexcept>
#include <utility>

namespace kvo {
KvoDataSubscriber::KvoDataSubscriber(KvoLogger* logger)
    : KvoDataTransferLib(logger), subscriber_state(std::make_shared<SubscriberState>(state)) {
    Init();
    LoadDefaults();
    ReadIni();
    PrintConfigValues();
}

KvoDataSubscriber::KvoDataSubscriber(const log4cplus::Logger& logger)
    : KvoDataTransferLib(logger), subscriber_state(std::make_shared<SubscriberState>(state)) {
    Init();
    LoadDefaults();
    ReadIni();
    PrintConfigValues();
}

KvoDataSubscriber::~KvoDataSubscriber() {
    if (KeptInForkedChild(subscriber_state)) {
        return;
    }
    state->closed = true;
    // The names stay: a re-registration in progress still uses them.
    const auto [accessor, statistics_client] =
        subscriber_state->registration.With([](SubscriberState::Registration& r) {
            return std::pair(std::exchange(r.accessor, nullptr),
                             std::exchange(r.statistics_client, nullptr));
        });
    if (accessor != nullptr) {
        // This destructor may run in a slot, which must not be called for the remaining samples.
        accessor->DataAvailableSignal().disconnect_all_slots();
    }
    ReleaseNotifications(*subscriber_state);
    CloseLogger();
}

void KvoDataSubscriber::Init() {
    // Version 4 (random) from the kernel's random source; throws boost::uuids::entropy_error.
    subscriber_state->subscriber_uuid = boost::uuids::to_string(boost::uuids::random_generator()());
    subscriber_state->registration.Exchange({});
    state->connected_to_broker = false;
    subscriber_state->event_busy = false;
}

void KvoDataSubscriber::LoadDefaults() {
    subscriber_state->max_age_data_sample = subscriber_state->default_max_age_data_sample;
    state->reply_time = state->default_reply_time;
}

void KvoDataSubscriber::ReadIni() {
    const auto file = ReadConfigFile(*state, "KvoDataSubscriber", GetConfigFilePath());
    if (!file) {
        return;
    }
    subscriber_state->max_age_data_sample = file->get<int>("datatransferlib.max_age_data_sample");
    ReadReplyTime(*state, *file);
    if (subscriber_state->max_age_data_sample < subscriber_state->min_max_age_data_sample) {
        Log(3, "max_age_data_sample should be at least 2000ms! Reset to default value (10000ms).");
        subscriber_state->max_age_data_sample = subscriber_state->default_max_age_data_sample;
    }
    CheckReplyTime(*state);
}

void KvoDataSubscriber::PrintConfigValues() {
    Log(1, "max age data sample [ms]: " + std::to_string(subscriber_state->max_age_data_sample));
    Log(1, "reply time for COR clients [s]: " + std::to_string(state->reply_time));
}

[[gnu::hot]] DataSample* KvoDataSubscriber::ReadData() {
    const auto accessor = subscriber_state->accessor();
    if (accessor == nullptr) {
        return nullptr;
    }
    std::string stream;
    unsigned int samples = 1;
    int sample_tag = 0;
    long sequence_number = -1;
    unsigned long timestamp_ms = 0;
    DataSample* sample = nullptr;
    accessor->get_data_packet(&stream, &samples, &sample_tag, &sequence_number, &timestamp_ms,
                              &sample);
    return sample;
}

boost::signals2::connection KvoDataSubscriber::connect(const boost::signals2::slot<void()>& slot) {
    const auto accessor = subscriber_state->accessor();
    if (accessor == nullptr) {
        throw std::logic_error("KvoDataSubscriber: connect() without shared memory");
    }
    return accessor->DataAvailableSignal().connect(slot);
}

StreamStatistics KvoDataSubscriber::get_statistics() {
    StreamStatistics statistics;
    if (os::InForkedChild()) {
        return statistics;
    }
    const auto registration = subscriber_state->registration.Get();
    if (registration.statistics_client == nullptr) {
        return statistics;
    }
    try {
        statistics =
            registration.statistics_client->GetStatistics(registration.data_stream_identifier);
    } catch (const std::exception& error) {
        state->LogException(error, "KvoDataSubscriber: get_statistics()");
    }
    return statistics;
}

}  // namespace kvo
