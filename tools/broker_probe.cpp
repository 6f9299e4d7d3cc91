#include "broker_probe.h"

#include "exit_codes.h"
#include "gorm/cor/cor.h"
#include "kvo/broker/broker_result.h"
#include "network/uri.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <limits>
#include <utility>

namespace kvo::tools {
namespace {

constexpr std::string_view kBrokerPath = "/broker/Broker1";
// A broker that has to ask another one answers within two seconds.
constexpr std::chrono::seconds kPatience{3};

std::string Unreachable(const std::string& uri) {
    return "no broker answers at " + uri +
           ". Start one with kvo-broker, or name another with --broker URI or the environment "
           "variable KVO_BROKER.";
}

// The URI with the broker's path, which users leave out.
network::uri CompleteUri(const std::string& text) {
    const std::string hint = "; a broker's URI looks like wkp.rr://127.0.0.1:5000";
    try {
        network::uri uri(text);
        const std::string_view port = uri.port();
        const bool is_number =
            !port.empty() && port.size() <= 5 &&
            std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; });
        if (uri.scheme() != "wkp.rr" || !is_number || std::stoi(std::string(port)) > 65535 ||
            std::stoi(std::string(port)) < 1 ||
            (!uri.path().empty() && uri.path() != kBrokerPath)) {
            throw CommandFailure(ExitCode::kUsage, "'" + text + "' names no broker" + hint);
        }
        return uri.path().empty() ? network::uri(text + std::string(kBrokerPath)) : uri;
    } catch (const network::uri_syntax_error& error) {
        throw CommandFailure(ExitCode::kUsage, error.what() + hint);
    }
}

}  // namespace

BrokerProbe::BrokerProbe(const std::string& broker_uri) : uri_(broker_uri) {
    const network::uri uri = CompleteUri(broker_uri);
    const gorm::cor::rr::qos::QoSList qos{
        std::make_shared<gorm::cor::rr::qos::ReplyTime>(kPatience)};
    client_ = gorm::cor::loadCorForUri(uri.string(), {})
                  .getClient<DataBrokerRegistrationSync>(uri, qos, {});
    // Any question waits for the connection and tells why there is none.
    Ask([](DataBrokerRegistrationSync& client) { return client.GetHeartbeatPeriod(); });
}

bool BrokerProbe::HasPublisher(const std::string& stream, const std::string& remote_broker) {
    return Ask([&](DataBrokerRegistrationSync& client) {
        return remote_broker.empty() ? client.HasLocalPublisher(stream)
                                     : client.HasRemotePublisher(remote_broker, stream);
    });
}

void BrokerProbe::RethrowAsFailure() const {
    try {
        throw;
    } catch (const gorm::cor::rr::RemoteError& error) {
        throw CommandFailure(ExitCode::kFailure, error.what());
    } catch (const gorm::cor::Error& error) {
        throw CommandFailure(ExitCode::kBrokerUnreachable,
                             std::string(error.what()) + "; " + Unreachable(uri_));
    }
}

// Older brokers do not know the question.
std::string ReasonOf(BrokerProbe& broker, const std::string& stream) {
    std::string reason;
    try {
        reason = broker.Ask(
            [&](DataBrokerRegistrationSync& client) { return client.GetRefusalReason(stream); });
    } catch (const CommandFailure&) {
    }
    return reason.empty() ? "; see the broker's log" : ": " + reason;
}

std::string DescribeRefusal(BrokerProbe& broker, const std::string& stream, int code,
                            int max_sample_bytes, int samples) {
    const std::string name = "'" + stream + "'";
    switch (code) {
        case kNotEnoughMemory: {
            const auto room = broker.Ask([&](DataBrokerRegistrationSync& client) {
                return client.GetMaxBufferSize(max_sample_bytes);
            });
            const std::int32_t fit = room / std::max(max_sample_bytes, 1);
            // A 32-bit number of bytes cannot tell of more than these.
            const std::int32_t most =
                std::numeric_limits<std::int32_t>::max() / std::max(max_sample_bytes, 1);
            return "the broker has no room for " + std::to_string(samples) + " samples of " +
                   std::to_string(max_sample_bytes) + " bytes in stream " + name + ": " +
                   (fit == most ? "at least " : "") + std::to_string(fit) +
                   " of this size would fit; ask for fewer with --samples or for smaller ones";
        }
        case kStreamInUse:
            return "stream " + name + " is in use by another publisher; choose another name";
        case kShmFileExists: {
            const std::string path = broker.Ask([&](DataBrokerRegistrationSync& client) {
                return client.GetExistingShmPath(stream);
            });
            return "the shared memory of stream " + name + " belongs to another publisher that " +
                   "still lives: " + path;
        }
        case kIllFormedName:
            return name +
                   " is no stream name: 1 to 255 letters, digits and - . _ ~ ! $ & ' ( ) * + , ; = "
                   ": @ /";
        case kIllFormedGeometry:
            return "the broker cannot keep " + std::to_string(samples) + " samples of " +
                   std::to_string(max_sample_bytes) + " bytes in stream " + name +
                   "; ask for fewer or smaller ones";
        default:
            return "the broker refused stream " + name + " with code " + std::to_string(code) +
                   ReasonOf(broker, stream);
    }
}

}  // namespace kvo::tools
