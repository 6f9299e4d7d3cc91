#include "kvo/KvoDataPublisher.h"

#include "core/configuration.h"
#include "kvo/memory/memory_accessor.h"
#include "publisher/publisher_state.h"

#include <ctime>
#include <stdexcept>
#include <utility>

namespace kvo {
namespace {

// Since the Unix epoch. Calls the C library directly: the clock of std::chrono is a library
// function that would add two pages of code to the path of each sample.
unsigned long NowMs() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<unsigned long>(now.tv_sec) * 1000 +
           static_cast<unsigned long>(now.tv_nsec) / 1'000'000;
}

StreamReporter& ReporterOf(const SamplePath& path) {
    if (path.reporter == nullptr) {
        throw std::logic_error("no broker client");
    }
    return *path.reporter;
}

}  // namespace

KvoDataPublisher::KvoDataPublisher(KvoLogger* logger)
    : KvoDataTransferLib(logger), publisher_state(std::make_shared<PublisherState>(state)) {
    Init();
    LoadDefaults();
    ReadIni();
    PrintConfigValues();
}

KvoDataPublisher::KvoDataPublisher(const log4cplus::Logger& logger)
    : KvoDataTransferLib(logger), publisher_state(std::make_shared<PublisherState>(state)) {
    Init();
    LoadDefaults();
    ReadIni();
    PrintConfigValues();
}

KvoDataPublisher::~KvoDataPublisher() {
    if (KeptInForkedChild(publisher_state)) {
        return;
    }
    state->closed = true;
    try {
        UnregisterPublisher();
    } catch (const std::exception&) {
        // Another thread is stopping the heartbeat, which ends in any case.
    }
    CloseLogger();
    state->broker_client.SetAccessor(nullptr);
}

void KvoDataPublisher::Init() {
    state->heartbeat_period = state->default_heartbeat_period;
    state->connected_to_broker = false;
    publisher_state->topic_id = 0;
    publisher_state->max_data_sample_size = 0;
    publisher_state->number_of_samples = 0;
    publisher_state->compute_checksum = false;
    publisher_state->registered = false;
    publisher_state->registration.Exchange({});
}

void KvoDataPublisher::LoadDefaults() {
    state->reply_time = state->default_reply_time;
}

void KvoDataPublisher::ReadIni() {
    const auto file = ReadConfigFile(*state, "KvoDataPublisher", GetConfigFilePath());
    if (!file) {
        return;
    }
    ReadReplyTime(*state, *file);
    CheckReplyTime(*state);
}

void KvoDataPublisher::PrintConfigValues() {
    Log(1, "reply time for COR clients [s]: " + std::to_string(state->reply_time));
}

void KvoDataPublisher::SetBufferSize(int max_data_sample_size, int number_of_samples) {
    publisher_state->max_data_sample_size = max_data_sample_size;
    publisher_state->number_of_samples = number_of_samples;
}

void KvoDataPublisher::set_topic_id(int topic_id) {
    publisher_state->topic_id = topic_id;
}

void KvoDataPublisher::WriteData(int sample_tag, const std::vector<unsigned char>& payload,
                                 const std::vector<unsigned char>& metadata) {
    WriteData(sample_tag, payload.data(), static_cast<int>(payload.size()), metadata.data(),
              static_cast<int>(metadata.size()));
}

[[gnu::hot]] void KvoDataPublisher::WriteData(int sample_tag, const unsigned char* payload,
                                              int payload_size, const unsigned char* metadata,
                                              int metadata_size) {
    if (!state->connected()) {
        return;
    }
    const unsigned long now_ms = NowMs();
    const auto path = state->broker_client.path();
    if (path->accessor == nullptr) {
        throw std::logic_error("KvoDataPublisher: WriteData() without shared memory");
    }
    path->accessor->WriteData(publisher_state->slot_index, publisher_state->topic_id, sample_tag,
                              payload, payload_size, metadata, metadata_size, now_ms);
    ReporterOf(*path).ReportDataWritten(payload_size, static_cast<std::int64_t>(now_ms));
}

[[gnu::hot]] void KvoDataPublisher::PublishData() {
    if (!state->connected()) {
        return;
    }
    try {
        const auto path = state->broker_client.path();
        ReporterOf(*path).NotifyNewData();
    } catch (const std::exception& error) {
        state->LogException(error, "KvoDataPublisher: PublishData()");
    }
}

bool KvoDataPublisher::get_connected_to_broker() const {
    return state->connected_to_broker;
}

}  // namespace kvo
