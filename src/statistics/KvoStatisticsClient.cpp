#include "kvo/KvoStatisticsClient.h"

#include "core/broker_connection.h"
#include "core/transfer_state.h"
#include "gorm/cor/cor.h"
#include "kvo/os/fork_guard.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace kvo {
namespace {

constexpr auto kReplyTime = std::chrono::milliseconds(3000);
constexpr std::uint64_t kNanosecondsPerMillisecond = 1'000'000;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

std::string TimeText(std::int64_t timestamp_ns) {
    const std::time_t seconds = timestamp_ns / kNanosecondsPerSecond;
    char text[64];  // ctime_r writes 26 characters for years of four digits
    return ctime_r(&seconds, text) == nullptr ? std::string() : text;
}

std::uint64_t Unsigned(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

std::int32_t Signed(const std::string& text) {
    return static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

// Fills the record field by field, so that a reply that is too short leaves what came before.
void Parse(const std::vector<std::string>& reply, StreamStatistics& statistics) {
    statistics.timestamp_ns =
        static_cast<std::int64_t>(Unsigned(reply.at(0)) * kNanosecondsPerMillisecond);
    statistics.timestamp_text = TimeText(statistics.timestamp_ns);
    statistics.int_value_1 = Signed(reply.at(1));
    statistics.count_value_1 = Unsigned(reply.at(2));
    statistics.count_value_2 = Unsigned(reply.at(3));
    statistics.count_value_3 = Unsigned(reply.at(4));
    statistics.int_value_2 = Signed(reply.at(5));
    statistics.text_value = reply.at(6);
}

// Every operation of the client: does nothing in a child of fork() and logs what goes wrong.
template <class Function>
void Query(TransferState& state, const char* where, Function&& query) {
    if (os::InForkedChild()) {
        return;
    }
    try {
        query();
    } catch (const std::exception& error) {
        state.LogException(error, where);
    }
}

}  // namespace

KvoStatisticsClient::KvoStatisticsClient(KvoLogger* logger, std::string broker_uri)
    : KvoDataTransferLib(logger) {
    Init(std::move(broker_uri));
}

KvoStatisticsClient::~KvoStatisticsClient() = default;

void KvoStatisticsClient::Init(std::string broker_uri) {
    Query(*state, "KvoStatisticsClient: Init()", [&] {
        const std::string uri = VerifyPathInBrokerUri(std::move(broker_uri));
        gorm::cor::VekFactory& factory = gorm::cor::loadCorForUri(uri, {});
        CreateBrokerClient(*state, factory, network::uri(uri), kReplyTime);
        if (AwaitBrokerConnection(*state)) {
            Log(1, "KvoStatisticsClient: Broker connection established");
        } else {
            Log(4, "KvoStatisticsClient: Broker connection failed");
        }
    });
}

StreamStatistics KvoStatisticsClient::GetStatistics(std::string data_stream_identifier) {
    StreamStatistics statistics;
    Query(*state, "KvoStatisticsClient: get_statistics()", [&] {
        Parse(state->broker_client.Call(&DataBrokerRegistrationSync::GetStreamStatistics,
                                        data_stream_identifier),
              statistics);
    });
    return statistics;
}

std::vector<std::string> KvoStatisticsClient::GetRegisteredStreams() {
    std::vector<std::string> streams;
    Query(*state, "KvoStatisticsClient: GetRegisteredStreams()", [&] {
        streams = state->broker_client.Call(&DataBrokerRegistrationSync::ListRegisteredStreams);
    });
    return streams;
}

std::vector<std::string> KvoStatisticsClient::GetConnectedBrokers() {
    std::vector<std::string> brokers;
    Query(*state, "KvoStatisticsClient: GetConnectedBrokers()", [&] {
        brokers = state->broker_client.Call(&DataBrokerRegistrationSync::ListConnectedBrokers);
    });
    return brokers;
}

}  // namespace kvo
