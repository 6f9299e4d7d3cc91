#include "request_handler.h"

#include "stream_name.h"

#include <stdexcept>

namespace kvo::brokerd {
namespace {

void DemandName(const std::string& stream) {
    if (!IsWellFormedName(stream)) {
        throw std::runtime_error(Quoted(stream) + " cannot name a stream");
    }
}

}  // namespace

// A refusal teaches: in the log, among the events, and whoever asks for the reason afterwards.
std::int32_t RequestHandler::Tell(const Caller& caller, const std::string& stream,
                                  const Verdict& verdict) {
    const std::string& asker = caller.identity.empty() ? caller.connection : caller.identity;
    if (!verdict.refused()) {
        reasons_.Forget(asker, stream);
        return verdict.code;
    }
    ++refused_;
    log_(3, "refused (" + std::to_string(verdict.code) + "): " + verdict.reason);
    events_.Add("refused", Quoted(stream), verdict.reason);
    reasons_.Keep(asker, stream, verdict.reason);
    return verdict.code;
}

std::string RequestHandler::GetRefusalReason(const Caller& caller, const std::string& stream) {
    return reasons_.Of(caller.identity.empty() ? caller.connection : caller.identity, stream);
}

void RequestHandler::SendHeartbeat(const Caller& caller, const std::string& client_id) {
    registry_.Beat(caller.identity, client_id);
}

// Latency and deadline matter to remote subscribers only.
std::int32_t RequestHandler::AddPublisher(const Caller& caller, const std::string& stream,
                                          std::int32_t /*latency_ms*/, std::int32_t /*deadline_s*/,
                                          std::int32_t max_data_sample_size,
                                          std::int32_t number_of_samples, bool compute_checksum,
                                          const std::string& publisher_key) {
    return Tell(
        caller, stream,
        registry_.AddPublisher(caller.identity, {stream, max_data_sample_size, number_of_samples,
                                                 compute_checksum, publisher_key}));
}

std::int32_t RequestHandler::RemovePublisher(const Caller& caller, const std::string& stream) {
    return Tell(caller, stream, registry_.RemovePublisher(caller.identity, stream));
}

void RequestHandler::NotifyNewData(const Caller& caller, const std::string& stream) {
    registry_.NewData(caller.identity, stream);
}

std::int32_t RequestHandler::AddSubscriber(const Caller& caller, const std::string& subscriber_uuid,
                                           const std::string& stream,
                                           const std::string& remote_broker_uri,
                                           std::int32_t /*latency_ms*/,
                                           std::int32_t /*deadline_s*/) {
    return Tell(
        caller, stream,
        registry_.AddSubscriber(caller.identity, subscriber_uuid, stream, remote_broker_uri));
}

std::int32_t RequestHandler::RemoveSubscriber(const Caller& caller, const std::string& stream,
                                              const std::string& subscriber_uuid) {
    return Tell(caller, stream, registry_.RemoveSubscriber(stream, subscriber_uuid));
}

std::string RequestHandler::GetPublisherKey(const Caller& caller, const std::string& stream) {
    return registry_.KeyFor(caller.identity, stream);
}

std::int32_t RequestHandler::GetNotificationPort(const Caller& /*caller*/,
                                                 const std::string& stream) {
    DemandName(stream);
    return answers_.notification_port;
}

std::vector<std::string> RequestHandler::GetStreamStatistics(const Caller& /*caller*/,
                                                             const std::string& stream) {
    const auto statistics = registry_.StateOf(stream);
    if (!statistics) {
        throw std::runtime_error("no stream " + Quoted(stream));
    }
    return {std::to_string(statistics->last_write_ms),
            std::to_string(statistics->subscribers),
            std::to_string(statistics->samples),
            std::to_string(statistics->payload_bytes),
            std::to_string(statistics->dropped),
            statistics->published ? "1" : "0",
            statistics->path};
}

std::int32_t RequestHandler::GetHeartbeatPeriod(const Caller& /*caller*/) {
    return answers_.heartbeat_period_s;
}

std::int32_t RequestHandler::GetHeartbeatTimeout(const Caller& /*caller*/) {
    return answers_.heartbeat_timeout_s;
}

std::string RequestHandler::GetShmFilePath(const Caller& /*caller*/, const std::string& stream) {
    DemandName(stream);
    return files_.PathOf(stream);
}

std::string RequestHandler::GetExistingShmPath(const Caller& caller, const std::string& stream) {
    return GetShmFilePath(caller, stream);
}

bool RequestHandler::IsStreamIdFree(const Caller& /*caller*/, const std::string& stream) {
    return !registry_.IsPublished(stream);
}

bool RequestHandler::HasLocalPublisher(const Caller& /*caller*/, const std::string& stream) {
    return registry_.IsPublished(stream);
}

bool RequestHandler::HasRemotePublisher(const Caller& /*caller*/,
                                        const std::string& /*remote_broker_uri*/,
                                        const std::string& /*stream*/) {
    return false;
}

void RequestHandler::ReportDataWritten(const Caller& caller, const std::string& stream,
                                       std::int32_t /*payload_size*/, std::int64_t written_ms) {
    // Samples and bytes are counted in the stream file itself.
    registry_.Written(caller.identity, stream, written_ms);
}

std::int32_t RequestHandler::GetMaxBufferSize(const Caller& /*caller*/,
                                              std::int32_t max_data_sample_size) {
    return files_.LargestBuffer(max_data_sample_size);
}

std::vector<std::string> RequestHandler::ListRegisteredStreams(const Caller& /*caller*/) {
    return registry_.Published();
}

std::vector<std::string> RequestHandler::ListConnectedBrokers(const Caller& /*caller*/) {
    return {};
}

std::vector<std::string> RequestHandler::GetCapabilities(const Caller& /*caller*/) {
    return {};
}

}  // namespace kvo::brokerd
