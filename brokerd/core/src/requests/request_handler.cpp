#include "requests/request_handler.h"

#include "kvo/broker/remote_stream_state.h"
#include "kvo/broker/stream_description.h"
#include "remote/broker_uri.h"
#include "streams/stream_name.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace kvo::brokerd {
namespace {

constexpr std::size_t kMaxImporterBytes = 300;

std::uint64_t LostBy(bool import, const TransferCounters& counters) {
    std::uint64_t lost = 0;
    for (const TransferLoss& loss : kTransferLosses) {
        lost += loss.import == import ? counters.*loss.count : 0;
    }
    return lost;
}

void AddLosses(std::vector<std::string>& elements, bool import, const TransferCounters& counters) {
    for (const TransferLoss& loss : kTransferLosses) {
        if (loss.import == import) {
            elements.push_back(std::string(loss.name) + "=" + std::to_string(counters.*loss.count));
        }
    }
}

void DemandName(const std::string& stream) {
    if (!IsWellFormedName(stream)) {
        throw std::runtime_error(Quoted(stream) + " cannot name a stream");
    }
}

}  // namespace

namespace {

const std::string& AskerOf(const RequestHandler::Caller& caller) {
    return caller.identity.empty() ? caller.connection : caller.identity;
}

// Without names, which may change and may take time.
std::string AccountOf(const gorm::cor::Peer& peer) {
    if (const auto* const local = std::get_if<gorm::cor::LocalPeer>(&peer)) {
        return "user " + std::to_string(local->user);
    }
    const auto* const key = std::get_if<gorm::cor::KeyPeer>(&peer);
    return key != nullptr ? "key " + key->public_key : "everybody without a name";
}

}  // namespace

// A refusal teaches: in the log, among the events, and whoever asks for the reason afterwards.
void RequestHandler::Record(const Caller& caller, const std::string& stream,
                            const std::string& code, const std::string& reason) {
    ++refused_;
    log_(3, "refused" + code + ": " + reason);
    events_.Add("refused", Quoted(stream), reason);
    reasons_.Keep(AskerOf(caller), stream, reason);
}

std::string RequestHandler::WhyNot(const Caller& caller, Right right,
                                   const std::string& stream) const {
    return IsWellFormedName(stream) ? access_.WhyNot(caller.peer, right, stream) : std::string();
}

void RequestHandler::DemandUse(const Caller& caller, const std::string& stream) {
    DemandName(stream);
    const std::string fault = access_.WhyNot(caller.peer, Right::kSubscribe, stream);
    if (!fault.empty() && !access_.WhyNot(caller.peer, Right::kPublish, stream).empty()) {
        Record(caller, stream, "", fault);
        throw std::runtime_error(fault);
    }
}

std::int32_t RequestHandler::Tell(const Caller& caller, const std::string& stream,
                                  const Verdict& verdict) {
    if (!verdict.refused()) {
        reasons_.Forget(AskerOf(caller), stream);
    } else {
        Record(caller, stream, " (" + std::to_string(verdict.code) + ")", verdict.reason);
    }
    return verdict.code;
}

std::string RequestHandler::GetRefusalReason(const Caller& caller, const std::string& stream) {
    return reasons_.Of(AskerOf(caller), stream);
}

void RequestHandler::SendHeartbeat(const Caller& caller, const std::string& client_id) {
    registry_.Beat(caller.identity, client_id);
}

std::int32_t RequestHandler::AddPublisher(const Caller& caller, const std::string& stream,
                                          std::int32_t latency_ms, std::int32_t deadline_s,
                                          std::int32_t max_data_sample_size,
                                          std::int32_t number_of_samples, bool compute_checksum,
                                          const std::string& publisher_key) {
    if (const std::string fault = WhyNot(caller, Right::kPublish, stream); !fault.empty()) {
        return Tell(caller, stream, {kNoRight, fault});
    }
    return Tell(
        caller, stream,
        registry_.AddPublisher(caller.identity,
                               {stream, max_data_sample_size, number_of_samples, compute_checksum,
                                publisher_key, AccountOf(caller.peer), latency_ms, deadline_s}));
}

std::int32_t RequestHandler::RemovePublisher(const Caller& caller, const std::string& stream) {
    return Tell(caller, stream, registry_.RemovePublisher(caller.identity, stream));
}

std::int32_t RequestHandler::EndStream(const Caller& caller, const std::string& stream) {
    if (const std::string fault = access_.WhyNot(caller.peer, Right::kAdmin, stream);
        !fault.empty()) {
        return Tell(caller, stream, {kNoRight, fault});
    }
    return Tell(caller, stream, registry_.EndStream(stream, access_.Describe(caller.peer)));
}

void RequestHandler::NotifyNewData(const Caller& caller, const std::string& stream) {
    registry_.NewData(caller.identity, stream);
}

void RequestHandler::RelayNewData(const Caller& caller, const std::string& stream) {
    if (registry_.IsPublisher(caller.identity, stream)) {
        topics_.relay(stream);
    }
}

std::int32_t RequestHandler::Subscribe(const Caller& caller, const std::string& uuid,
                                       const std::string& stream) {
    const Verdict verdict =
        registry_.AddSubscriber(caller.identity, uuid, stream, AccountOf(caller.peer));
    if (!verdict.refused()) {
        topics_.open(stream);  // before the answer, after which he looks for it
    }
    return Tell(caller, stream, verdict);
}

// A subscriber's latency can not be watched: the clocks of two hosts differ.
RequestHandler::Deferred<std::int32_t> RequestHandler::AddSubscriber(
    const Caller& caller, const std::string& subscriber_uuid, const std::string& stream,
    const std::string& remote_broker_uri, std::int32_t /*latency_ms*/, std::int32_t deadline_s) {
    if (const std::string fault = WhyNot(caller, Right::kSubscribe, stream); !fault.empty()) {
        return Tell(caller, stream, {kNoRight, fault});
    }
    if (remote_broker_uri.empty()) {
        return Subscribe(caller, subscriber_uuid, stream);
    }
    if (const Verdict verdict = registry_.CheckSubscriber(caller.identity, subscriber_uuid, stream,
                                                          AccountOf(caller.peer));
        verdict.refused()) {
        return Tell(caller, stream, verdict);
    }
    std::string broker;
    try {
        broker = CompleteBrokerUri(remote_broker_uri);
    } catch (const std::exception& error) {
        return Tell(caller, stream, {kUnknownRemoteBroker, error.what()});
    }
    Deferred<std::int32_t> answer;
    remote_.RequestImport(
        broker, stream, deadline_s,
        [this, caller, subscriber_uuid, stream, answer](const Verdict& verdict, bool) {
            answer.Resolve(verdict.refused() ? Tell(caller, stream, verdict)
                                             : Subscribe(caller, subscriber_uuid, stream));
        });
    return answer;
}

std::int32_t RequestHandler::RemoveSubscriber(const Caller& caller, const std::string& stream,
                                              const std::string& subscriber_uuid) {
    return Tell(caller, stream,
                registry_.RemoveSubscriber(caller.identity, stream, subscriber_uuid));
}

std::string RequestHandler::GetPublisherKey(const Caller& caller, const std::string& stream) {
    return registry_.KeyFor(caller.identity, stream);
}

std::int32_t RequestHandler::GetNotificationPort(const Caller& caller, const std::string& stream) {
    DemandUse(caller, stream);
    return answers_.notification_port;
}

std::vector<std::string> RequestHandler::GetStreamStatistics(const Caller& caller,
                                                             const std::string& stream) {
    DemandUse(caller, stream);
    const auto statistics = registry_.StateOf(stream);
    if (!statistics) {
        throw std::runtime_error("no stream " + Quoted(stream));
    }
    const auto imported = remote_.Imported(stream);
    std::vector<std::string> elements{
        std::to_string(statistics->last_write_ms),
        std::to_string(statistics->subscribers),
        std::to_string(statistics->samples),
        std::to_string(statistics->payload_bytes),
        std::to_string(statistics->dropped + (imported ? LostBy(true, *imported) : 0)),
        statistics->published     ? "1"
        : statistics->remote_live ? "2"
                                  : "0",
        statistics->path};
    // Of streams between hosts also what did not arrive, by cause.
    if (imported) {
        elements.push_back("remote_broker=" + statistics->remote_broker);
        AddLosses(elements, true, *imported);
    }
    if (const auto exported = remote_.Exported(stream)) {
        elements.push_back("exported=" + std::to_string(exported->samples));
        AddLosses(elements, false, *exported);
    }
    return elements;
}

std::int32_t RequestHandler::GetHeartbeatPeriod(const Caller& /*caller*/) {
    return answers_.heartbeat_period_s;
}

std::int32_t RequestHandler::GetHeartbeatTimeout(const Caller& /*caller*/) {
    return answers_.heartbeat_timeout_s;
}

std::string RequestHandler::GetShmFilePath(const Caller& caller, const std::string& stream) {
    DemandUse(caller, stream);
    return files_.PathOf(stream);
}

std::string RequestHandler::GetExistingShmPath(const Caller& caller, const std::string& stream) {
    return GetShmFilePath(caller, stream);
}

bool RequestHandler::IsStreamIdFree(const Caller& /*caller*/, const std::string& stream) {
    return !registry_.IsTaken(stream);
}

bool RequestHandler::HasLocalPublisher(const Caller& /*caller*/, const std::string& stream) {
    return registry_.IsPublished(stream);
}

RequestHandler::Deferred<bool> RequestHandler::HasRemotePublisher(
    const Caller& caller, const std::string& remote_broker_uri, const std::string& stream) {
    DemandName(stream);
    if (const std::string fault = access_.WhyNot(caller.peer, Right::kSubscribe, stream);
        !fault.empty()) {
        reasons_.Keep(AskerOf(caller), stream, fault);
        return false;
    }
    std::string broker;
    try {
        broker = CompleteBrokerUri(remote_broker_uri);
    } catch (const std::exception& error) {
        reasons_.Keep(AskerOf(caller), stream, error.what());
        return false;
    }
    Deferred<bool> answer;
    remote_.Probe(broker, stream, [this, caller, stream, answer](const Verdict& verdict, bool) {
        if (verdict.refused()) {
            reasons_.Keep(AskerOf(caller), stream, verdict.reason);
        }
        answer.Resolve(!verdict.refused());
    });
    return answer;
}

StreamDescription RequestHandler::DescribeStream(const Caller& caller, const std::string& stream,
                                                 const std::string& importer) {
    DemandName(stream);
    if (importer.size() > kMaxImporterBytes ||
        !std::all_of(importer.begin(), importer.end(),
                     [](char c) { return c > ' ' && c <= '~'; })) {
        throw std::runtime_error("this cannot be the name of a broker: " + Quoted(importer));
    }
    if (const std::string fault = access_.WhyNot(caller.peer, Right::kSubscribe, stream);
        !fault.empty()) {
        Record(caller, stream, "", fault);
        throw std::runtime_error(fault);
    }
    return remote_.Describe(stream, importer);
}

std::vector<RemoteStreamState> RequestHandler::ListRemoteStreams(const Caller& /*caller*/) {
    return remote_.States();
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
    return remote_.ConnectedBrokers();
}

std::vector<std::string> RequestHandler::GetCapabilities(const Caller& /*caller*/) {
    return answers_.capabilities;
}

}  // namespace kvo::brokerd
