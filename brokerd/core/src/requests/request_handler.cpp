#include "requests/request_handler.h"

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

void DemandName(const StreamName& stream) {
    if (!IsWellFormedName(stream)) {
        throw std::runtime_error(Quoted(stream) + " cannot name a stream");
    }
}

// Without names, which may change and may take time.
std::string AccountOf(const gorm::cor::Peer& peer) {
    if (const auto* const local = std::get_if<gorm::cor::LocalPeer>(&peer)) {
        return "user " + std::to_string(local->user);
    }
    const auto* const key = std::get_if<gorm::cor::KeyPeer>(&peer);
    return key != nullptr ? "key " + key->public_key : "all peers without a name";
}

ClientIdentity IdentityOf(const RequestHandler::Caller& caller) {
    return ParseIdentity(caller.identity);
}

Registrant RegistrantOf(const RequestHandler::Caller& caller) {
    return {IdentityOf(caller), AccountOf(caller.peer)};
}

}  // namespace

std::string RequestHandler::Check(const Caller& caller, Right right,
                                  const StreamName& stream) const {
    return IsWellFormedName(stream) ? access_.Check(caller.peer, right, stream) : std::string();
}

void RequestHandler::DemandUse(const Caller& caller, const StreamName& stream) {
    DemandName(stream);
    const std::string error = access_.Check(caller.peer, Right::kSubscribe, stream);
    if (!error.empty() && !access_.Check(caller.peer, Right::kPublish, stream).empty()) {
        refusals_.Add(caller, stream, "", error);
        throw std::runtime_error(error);
    }
}

std::int32_t RequestHandler::Answer(const Caller& caller, const StreamName& stream,
                                    const Verdict& verdict) {
    if (verdict.refused()) {
        refusals_.Add(caller, stream, " (" + std::to_string(verdict.code) + ")", verdict.reason);
    } else {
        refusals_.Forget(caller, stream);
    }
    return verdict.code;
}

std::string RequestHandler::GetRefusalReason(const Caller& caller, const StreamName& stream) {
    return refusals_.Of(caller, stream);
}

void RequestHandler::SendHeartbeat(const Caller& caller, const std::string& client_id) {
    registry_.OnHeartbeat(IdentityOf(caller), client_id);
}

std::int32_t RequestHandler::AddPublisher(const Caller& caller, const PublisherRequest& request) {
    if (const std::string error = Check(caller, Right::kPublish, request.stream); !error.empty()) {
        return Answer(caller, request.stream, {kNoRight, error});
    }
    return Answer(caller, request.stream,
                  registry_.publishers().Add(RegistrantOf(caller), request));
}

std::int32_t RequestHandler::RemovePublisher(const Caller& caller, const StreamName& stream) {
    return Answer(caller, stream, registry_.publishers().Remove(IdentityOf(caller), stream));
}

std::int32_t RequestHandler::EndStream(const Caller& caller, const StreamName& stream) {
    if (const std::string error = access_.Check(caller.peer, Right::kAdmin, stream);
        !error.empty()) {
        return Answer(caller, stream, {kNoRight, error});
    }
    return Answer(caller, stream,
                  registry_.publishers().EndStream(stream, access_.Describe(caller.peer)));
}

void RequestHandler::NotifyNewData(const Caller& caller, const StreamName& stream) {
    registry_.publishers().OnNewData(IdentityOf(caller), stream);
}

void RequestHandler::RelayNewData(const Caller& caller, const StreamName& stream) {
    if (registry_.publishers().Owns(IdentityOf(caller), stream)) {
        topics_.relay(stream);
    }
}

std::int32_t RequestHandler::Subscribe(const Caller& caller, const SubscriberId& subscriber,
                                       const StreamName& stream) {
    const Verdict verdict = registry_.subscribers().Add(RegistrantOf(caller), subscriber, stream);
    if (!verdict.refused()) {
        topics_.open(stream);  // before the answer, after which the subscriber opens it
    }
    return Answer(caller, stream, verdict);
}

// A subscriber's latency cannot be watched: the clocks of two hosts differ.
RequestHandler::Deferred<std::int32_t> RequestHandler::AddSubscriber(
    const Caller& caller, const SubscriberId& subscriber, const StreamName& stream,
    const std::string& remote_broker_uri, std::int32_t /*latency_ms*/, std::int32_t deadline_s) {
    if (const std::string error = Check(caller, Right::kSubscribe, stream); !error.empty()) {
        return Answer(caller, stream, {kNoRight, error});
    }
    if (remote_broker_uri.empty()) {
        return Subscribe(caller, subscriber, stream);
    }
    if (const Verdict verdict =
            registry_.subscribers().Check(RegistrantOf(caller), subscriber, stream);
        verdict.refused()) {
        return Answer(caller, stream, verdict);
    }
    std::string broker;
    try {
        broker = CompleteBrokerUri(remote_broker_uri);
    } catch (const std::exception& error) {
        return Answer(caller, stream, {kUnknownRemoteBroker, error.what()});
    }
    Deferred<std::int32_t> answer;
    remote_.RequestImport(broker, stream.text(), deadline_s,
                          [this, caller, subscriber, stream, answer](const Verdict& verdict, bool) {
                              answer.Resolve(verdict.refused()
                                                 ? Answer(caller, stream, verdict)
                                                 : Subscribe(caller, subscriber, stream));
                          });
    return answer;
}

std::int32_t RequestHandler::RemoveSubscriber(const Caller& caller, const StreamName& stream,
                                              const SubscriberId& subscriber) {
    return Answer(caller, stream,
                  registry_.subscribers().Remove(IdentityOf(caller), stream, subscriber));
}

std::string RequestHandler::GetPublisherKey(const Caller& caller, const StreamName& stream) {
    return registry_.publishers().KeyFor(IdentityOf(caller), stream);
}

std::int32_t RequestHandler::GetNotificationPort(const Caller& caller, const StreamName& stream) {
    DemandUse(caller, stream);
    return answers_.notification_port;
}

std::vector<std::string> RequestHandler::GetStreamStatistics(const Caller& caller,
                                                             const StreamName& stream) {
    DemandUse(caller, stream);
    const auto statistics = registry_.StateOf(stream);
    if (!statistics) {
        throw std::runtime_error("no stream " + Quoted(stream));
    }
    const auto imported = remote_.Imported(stream.text());
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
    if (const auto exported = remote_.Exported(stream.text())) {
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

std::string RequestHandler::GetShmFilePath(const Caller& caller, const StreamName& stream) {
    DemandUse(caller, stream);
    return files_.PathOf(stream);
}

std::string RequestHandler::GetExistingShmPath(const Caller& caller, const StreamName& stream) {
    return GetShmFilePath(caller, stream);
}

bool RequestHandler::IsStreamIdFree(const Caller& /*caller*/, const StreamName& stream) {
    return !registry_.IsTaken(stream);
}

bool RequestHandler::HasLocalPublisher(const Caller& /*caller*/, const StreamName& stream) {
    return registry_.publishers().HasLiving(stream);
}

RequestHandler::Deferred<bool> RequestHandler::HasRemotePublisher(
    const Caller& caller, const std::string& remote_broker_uri, const StreamName& stream) {
    DemandName(stream);
    if (const std::string error = access_.Check(caller.peer, Right::kSubscribe, stream);
        !error.empty()) {
        refusals_.Keep(caller, stream, error);
        return false;
    }
    std::string broker;
    try {
        broker = CompleteBrokerUri(remote_broker_uri);
    } catch (const std::exception& error) {
        refusals_.Keep(caller, stream, error.what());
        return false;
    }
    Deferred<bool> answer;
    remote_.Probe(broker, stream.text(),
                  [this, caller, stream, answer](const Verdict& verdict, bool) {
                      if (verdict.refused()) {
                          refusals_.Keep(caller, stream, verdict.reason);
                      }
                      answer.Resolve(!verdict.refused());
                  });
    return answer;
}

StreamDescription RequestHandler::DescribeStream(const Caller& caller, const StreamName& stream,
                                                 const std::string& importer) {
    DemandName(stream);
    if (importer.size() > kMaxImporterBytes ||
        !std::all_of(importer.begin(), importer.end(),
                     [](char c) { return c > ' ' && c <= '~'; })) {
        throw std::runtime_error("this cannot be the name of a broker: " + Quoted(importer));
    }
    if (const std::string error = access_.Check(caller.peer, Right::kSubscribe, stream);
        !error.empty()) {
        refusals_.Add(caller, stream, "", error);
        throw std::runtime_error(error);
    }
    return remote_.Describe(stream.text(), importer);
}

std::vector<RemoteStreamState> RequestHandler::ListRemoteStreams(const Caller& /*caller*/) {
    return remote_.States();
}

void RequestHandler::ReportDataWritten(const Caller& caller, const StreamName& stream,
                                       std::int32_t /*payload_bytes*/, std::int64_t written_ms) {
    // Samples and bytes are counted in the stream file itself.
    registry_.publishers().OnDataWritten(IdentityOf(caller), stream, written_ms);
}

std::int32_t RequestHandler::GetMaxBufferSize(const Caller& /*caller*/,
                                              std::int32_t max_payload_bytes) {
    return files_.LargestBuffer(max_payload_bytes);
}

std::vector<std::string> RequestHandler::ListRegisteredStreams(const Caller& /*caller*/) {
    return registry_.publishers().Names();
}

std::vector<std::string> RequestHandler::ListConnectedBrokers(const Caller& /*caller*/) {
    return remote_.ConnectedBrokers();
}

std::vector<std::string> RequestHandler::GetCapabilities(const Caller& /*caller*/) {
    return answers_.capabilities;
}

}  // namespace kvo::brokerd
