#include "kvo/KvoDataPublisher.h"

#include "../core/configuration.h"
#include "../core/detached_thread.h"
#include "../core/heartbeat.h"
#include "kvo/broker/broker_result.h"
#include "kvo/os/fork_guard.h"
#include "publisher_state.h"

#include <ctime>
#include <stdexcept>
#include <utility>

namespace kvo {
namespace {

// The accessor's last two arguments of a writer: any age, ten samples.
constexpr unsigned long kMaxAge = 0;
constexpr int kAccessorArgument = 10;
constexpr int kMaxMetadataSize = 1500;  // bytes

// Since 1970. Asked of the C library at once, since std::chrono's own clock is a library function,
// and with it two more pages of code on the way of each sample.
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

void OnConnection(const std::shared_ptr<PublisherState>& publisher, bool connected) {
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
    if (os::InForkedChild()) {
        static_cast<void>(new std::shared_ptr<PublisherState>(publisher_state));
        return;
    }
    state->closed = true;
    try {
        UnregisterPublisher();
    } catch (const std::exception&) {
        // The heartbeat is being stopped by another thread at this moment; it ends all the same.
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
        auto registration = state->broker_client.Call(
            &DataBrokerRegistrationSync::RegisterConnectionListener,
            [publisher = publisher_state](bool connected) { OnConnection(publisher, connected); });
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

void KvoDataPublisher::Reregister() {
    ReregisterPublisher(*publisher_state);
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

void KvoDataPublisher::PrintParameters() {
    Log(2, "KvoDataPublisher: Broker URI: " + publisher_state->registration.Get().broker_uri);
    Log(1, "KvoDataPublisher parameters:");
    Log(1, "Data_stream_identifier: " + state->broker_client.path()->data_stream_identifier);
    Log(1, "Latency: " + std::to_string(state->latency) + " [ms]");
    Log(1, "Deadline: " + std::to_string(state->deadline) + " [s]");
    Log(1, "Max_data_sample_size: " + std::to_string(publisher_state->max_data_sample_size));
    Log(1, "Number_of_samples: " + std::to_string(publisher_state->number_of_samples));
}

void KvoDataPublisher::WriteData(int sample_tag, const std::vector<unsigned char>& payload,
                                 const std::vector<unsigned char>& metadata) {
    WriteData(sample_tag, payload.data(), static_cast<int>(payload.size()), metadata.data(),
              static_cast<int>(metadata.size()));
}

[[gnu::hot]] void KvoDataPublisher::WriteData(int sample_tag, const unsigned char* payload,
                                              int payload_size, const unsigned char* metadata,
                                              int metadata_size) {
    if (!state->connected_to_broker || os::InForkedChild()) {
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
    if (!state->connected_to_broker || os::InForkedChild()) {
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
