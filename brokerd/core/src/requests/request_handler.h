#pragma once

#include "access/access.h"
#include "gorm/cor/rr/deferred.h"
#include "gorm/cor/rr/service.h"
#include "kvo/broker/publisher_request.h"
#include "kvo/broker/remote_stream_state.h"
#include "kvo/broker/stream_description.h"
#include "remote/remote_streams.h"
#include "requests/refusals.h"
#include "streams/stream_registry.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kvo::brokerd {

/// The operations of the wire on a registry, as DataBrokerRegistrationSync tells them, each with
/// its caller. Where another broker is asked first, the answer comes later.
/// Threads: the service loop.
class RequestHandler {
public:
    using Caller = gorm::cor::rr::Caller;
    template <class T>
    using Deferred = gorm::cor::rr::Deferred<T>;

    struct Answers {
        std::int32_t heartbeat_period_s;
        std::int32_t heartbeat_timeout_s;
        std::int32_t notification_port;
        std::vector<std::string> capabilities;
    };
    /// What is done about a stream's topic.
    struct TopicCalls {
        std::function<void(const StreamName& stream)> open;   // a client is about to listen
        std::function<void(const StreamName& stream)> relay;  // NEW_DATA for those at sockets
    };
    RequestHandler(StreamRegistry& registry, StreamFiles& files, RemoteStreams& remote,
                   const Access& access, Refusals& refusals, TopicCalls topics,
                   const Answers& answers)
        : registry_(registry),
          files_(files),
          remote_(remote),
          access_(access),
          refusals_(refusals),
          topics_(std::move(topics)),
          answers_(answers) {}

    void set_heartbeat_timeout(std::int32_t seconds) { answers_.heartbeat_timeout_s = seconds; }

    void SendHeartbeat(const Caller& caller, const std::string& client_id);
    std::int32_t AddPublisher(const Caller& caller, const PublisherRequest& request);
    std::int32_t RemovePublisher(const Caller& caller, const StreamName& stream);
    void NotifyNewData(const Caller& caller, const StreamName& stream);
    void RelayNewData(const Caller& caller, const StreamName& stream);
    Deferred<std::int32_t> AddSubscriber(const Caller& caller, const SubscriberId& subscriber,
                                         const StreamName& stream,
                                         const std::string& remote_broker_uri,
                                         std::int32_t latency_ms, std::int32_t deadline_s);
    std::int32_t RemoveSubscriber(const Caller& caller, const StreamName& stream,
                                  const SubscriberId& subscriber);
    std::string GetPublisherKey(const Caller& caller, const StreamName& stream);
    std::int32_t GetNotificationPort(const Caller& caller, const StreamName& stream);
    std::vector<std::string> GetStreamStatistics(const Caller& caller, const StreamName& stream);
    std::int32_t GetHeartbeatPeriod(const Caller& caller);
    std::int32_t GetHeartbeatTimeout(const Caller& caller);
    std::string GetShmFilePath(const Caller& caller, const StreamName& stream);
    std::string GetExistingShmPath(const Caller& caller, const StreamName& stream);
    bool IsStreamIdFree(const Caller& caller, const StreamName& stream);
    bool HasLocalPublisher(const Caller& caller, const StreamName& stream);
    Deferred<bool> HasRemotePublisher(const Caller& caller, const std::string& remote_broker_uri,
                                      const StreamName& stream);
    void ReportDataWritten(const Caller& caller, const StreamName& stream,
                           std::int32_t payload_bytes, std::int64_t written_ms);
    std::int32_t GetMaxBufferSize(const Caller& caller, std::int32_t max_payload_bytes);
    std::vector<std::string> ListRegisteredStreams(const Caller& caller);
    std::vector<std::string> ListConnectedBrokers(const Caller& caller);
    std::vector<std::string> GetCapabilities(const Caller& caller);
    std::string GetRefusalReason(const Caller& caller, const StreamName& stream);
    StreamDescription DescribeStream(const Caller& caller, const StreamName& stream,
                                     const std::string& importer);
    std::vector<RemoteStreamState> ListRemoteStreams(const Caller& caller);
    std::int32_t EndStream(const Caller& caller, const StreamName& stream);

private:
    /// Empty: the caller has the right, or the name is ill-formed and is refused as such.
    std::string Check(const Caller& caller, Right right, const StreamName& stream) const;
    /// Throws when the caller may neither publish nor subscribe to the stream.
    void DemandUse(const Caller& caller, const StreamName& stream);
    std::int32_t Subscribe(const Caller& caller, const SubscriberId& subscriber,
                           const StreamName& stream);
    /// Records the verdict for the caller. @return its code.
    std::int32_t Answer(const Caller& caller, const StreamName& stream, const Verdict& verdict);

    StreamRegistry& registry_;
    StreamFiles& files_;
    RemoteStreams& remote_;
    const Access& access_;
    Refusals& refusals_;
    const TopicCalls topics_;
    Answers answers_;
};

}  // namespace kvo::brokerd
