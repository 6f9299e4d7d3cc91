#include "kvo/KvoDataTransferLib.h"

#include "core/broker_connection.h"
#include "core/configuration.h"
#include "core/heartbeat.h"
#include "core/transfer_state.h"
#include "kvo/os/fork_guard.h"

#include <chrono>
#include <utility>

namespace kvo {

KvoDataTransferLib::KvoDataTransferLib(KvoLogger* logger)
    : state(std::make_shared<TransferState>()) {
    Init(logger);
}

KvoDataTransferLib::KvoDataTransferLib(const log4cplus::Logger& logger)
    : state(std::make_shared<TransferState>()) {
    state->owned_logger = std::make_unique<KvoLogger>(logger);
    Init(state->owned_logger.get());
}

KvoDataTransferLib::~KvoDataTransferLib() {
    if (KeptInForkedChild(state)) {
        return;
    }
    state->closed = true;
    CloseLogger();
    state->owned_logger.reset();
    state->listener_registration.Release();
    state->broker_client.Replace(nullptr);
    AbandonHeartbeat(*state);
}

int KvoDataTransferLib::RegisterPublisher(std::string /*broker_uri*/,
                                          std::string /*data_stream_identifier*/,
                                          bool /*compute_checksum*/) {
    return 0;
}

int KvoDataTransferLib::UnregisterPublisher() {
    return 0;
}

void KvoDataTransferLib::PublishData() {}

int KvoDataTransferLib::RegisterSubscriber(std::string /*broker_uri*/,
                                           std::string /*data_stream_identifier*/,
                                           std::string /*remote_broker_uri*/,
                                           int /*accessor_argument*/) {
    return 0;
}

int KvoDataTransferLib::UnregisterSubscriber() {
    return 0;
}

DataSample* KvoDataTransferLib::ReadData() {
    return nullptr;
}

void KvoDataTransferLib::Init(KvoLogger* logger) {
    state->latency = state->default_latency;
    state->deadline = state->default_deadline;
    state->reply_time = state->default_reply_time;
    state->heartbeat_period = state->default_heartbeat_period;
    state->heartbeat.With([](Heartbeat& h) { *h.heartbeat_running = false; });
    state->logger.Open(logger);
}

void KvoDataTransferLib::SetQoS(int latency, int deadline) {
    state->latency = latency;
    state->deadline = deadline;
}

std::unique_ptr<DataBrokerRegistrationSync> KvoDataTransferLib::GetBrokerClient() {
    return os::InForkedChild() ? nullptr : state->broker_client.Take();
}

std::string KvoDataTransferLib::GetConfigFilePath() {
    return ConfigFilePath(*state);
}

std::string KvoDataTransferLib::VerifyPathInBrokerUri(std::string uri) {
    if (uri.empty()) {
        return uri;
    }
    const std::size_t colon = uri.rfind(':');
    const std::size_t port = colon == std::string::npos ? 0 : colon + 1;
    const std::size_t path = uri.find_first_not_of("0123456789", port);
    if (path == std::string::npos) {
        return uri + state->broker_path;
    }
    if (uri.compare(path, std::string::npos, state->broker_path) == 0) {
        return uri;
    }
    Log(4, "Invalid URI!");
    return {};
}

int KvoDataTransferLib::InitCOR(std::string uri) {
    if (os::InForkedChild()) {
        return -1;
    }
    gorm::cor::VekFactory& factory = gorm::cor::loadCorForUri(uri, {});
    const network::uri broker(uri);
    const auto create_client = [&] {
        CreateBrokerClient(*state, factory, broker, std::chrono::seconds(state->reply_time));
    };
    try {
        create_client();
        int reply_time = state->reply_time;
        CheckHeartbeatTimeout(reply_time);
        if (reply_time != state->reply_time) {
            state->reply_time = reply_time;
            state->broker_client.Replace(nullptr);
            create_client();
        }
        if (AwaitBrokerConnection(*state)) {
            state->connected_to_broker = true;
            Log(1, "KvoDataTransferLib: Broker connection established");
            return 1;
        }
        state->connected_to_broker = false;
        Log(4, "KvoDataTransferLib: Broker connection failed");
    } catch (const std::exception& error) {
        state->LogException(error, "KvoDataTransferLib: InitCOR()");
    }
    return -1;
}

void KvoDataTransferLib::StartHeartbeat(int period, std::string id) {
    kvo::StartHeartbeat(state, period, std::move(id));
}

void KvoDataTransferLib::StopHeartbeat() {
    kvo::StopHeartbeat(*state);
}

void KvoDataTransferLib::CheckHeartbeatTimeout(int& reply_time_out) {
    try {
        const int timeout =
            state->broker_client.Call(&DataBrokerRegistrationSync::GetHeartbeatTimeout);
        if (state->reply_time < timeout) {
            return;
        }
        Log(3, "heartbeat_timeout has to be greater than reply_time!");
        reply_time_out = timeout - 1;
        Log(2, "heartbeat timeout [s]: " + std::to_string(timeout));
        Log(2, "new reply time [s]: " + std::to_string(reply_time_out));
    } catch (const std::exception& error) {
        state->LogException(error, "KvoDataTransferLib: CheckHeartbeatTimeout()");
    }
}

void KvoDataTransferLib::Log(int level, const std::string& message) {
    state->Log(level, message);
}

void KvoDataTransferLib::CloseLogger() {
    state->logger.Close();
}

}  // namespace kvo
