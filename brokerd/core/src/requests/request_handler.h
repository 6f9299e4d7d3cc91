#pragma once

#include "access/access.h"
#include "kvo/broker/data_broker_registration_handler.h"
#include "remote/remote_streams.h"
#include "requests/event_log.h"
#include "requests/refusals.h"
#include "streams/stream_registry.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kvo::brokerd {

/// The operations of the wire on a registry. Threads: the service loop.
class RequestHandler final : public DataBrokerRegistrationHandler {
public:
    struct Answers {
        std::int32_t heartbeat_period_s;
        std::int32_t heartbeat_timeout_s;
        std::int32_t notification_port;
        std::vector<std::string> capabilities;
    };
    /// What is done about a stream's topic.
    struct TopicCalls {
        std::function<void(const std::string& stream)> open;   // somebody will listen
        std::function<void(const std::string& stream)> relay;  // NEW_DATA for those at sockets
    };
    using Log = std::function<void(int level, const std::string& text)>;
    RequestHandler(StreamRegistry& registry, StreamFiles& files, RemoteStreams& remote,
                   const Access& access, EventLog& events, Log log, TopicCalls topics,
                   const Answers& answers)
        : registry_(registry),
          files_(files),
          remote_(remote),
          access_(access),
          events_(events),
          log_(std::move(log)),
          topics_(std::move(topics)),
          answers_(answers) {}

    void set_heartbeat_timeout(std::int32_t seconds) { answers_.heartbeat_timeout_s = seconds; }
    std::uint64_t refusals() const { return refused_; }

    void SendHeartbeat(const Caller& caller, const std::string& client_id) override;
    std::int32_t AddPublisher(const Caller& caller, const std::string& stream,
                              std::int32_t latency_ms, std::int32_t deadline_s,
                              std::int32_t max_data_sample_size, std::int32_t number_of_samples,
                              bool compute_checksum, const std::string& publisher_key) override;
    std::int32_t RemovePublisher(const Caller& caller, const std::string& stream) override;
    void NotifyNewData(const Caller& caller, const std::string& stream) override;
    void RelayNewData(const Caller& caller, const std::string& stream) override;
    Deferred<std::int32_t> AddSubscriber(const Caller& caller, const std::string& subscriber_uuid,
                                         const std::string& stream,
                                         const std::string& remote_broker_uri,
                                         std::int32_t latency_ms, std::int32_t deadline_s) override;
    std::int32_t RemoveSubscriber(const Caller& caller, const std::string& stream,
                                  const std::string& subscriber_uuid) override;
    std::string GetPublisherKey(const Caller& caller, const std::string& stream) override;
    std::int32_t GetNotificationPort(const Caller& caller, const std::string& stream) override;
    std::vector<std::string> GetStreamStatistics(const Caller& caller,
                                                 const std::string& stream) override;
    std::int32_t GetHeartbeatPeriod(const Caller& caller) override;
    std::int32_t GetHeartbeatTimeout(const Caller& caller) override;
    std::string GetShmFilePath(const Caller& caller, const std::string& stream) override;
    std::string GetExistingShmPath(const Caller& caller, const std::string& stream) override;
    bool IsStreamIdFree(const Caller& caller, const std::string& stream) override;
    bool HasLocalPublisher(const Caller& caller, const std::string& stream) override;
    Deferred<bool> HasRemotePublisher(const Caller& caller, const std::string& remote_broker_uri,
                                      const std::string& stream) override;
    void ReportDataWritten(const Caller& caller, const std::string& stream,
                           std::int32_t payload_size, std::int64_t written_ms) override;
    std::int32_t GetMaxBufferSize(const Caller& caller, std::int32_t max_data_sample_size) override;
    std::vector<std::string> ListRegisteredStreams(const Caller& caller) override;
    std::vector<std::string> ListConnectedBrokers(const Caller& caller) override;
    std::vector<std::string> GetCapabilities(const Caller& caller) override;
    std::string GetRefusalReason(const Caller& caller, const std::string& stream) override;
    StreamDescription DescribeStream(const Caller& caller, const std::string& stream,
                                     const std::string& importer) override;
    std::vector<RemoteStreamState> ListRemoteStreams(const Caller& caller) override;
    std::int32_t EndStream(const Caller& caller, const std::string& stream) override;

private:
    /// Empty: the caller may, or the name is no stream's and is refused as such.
    std::string WhyNot(const Caller& caller, Right right, const std::string& stream) const;
    /// Throws when the caller may neither publish nor subscribe to the stream.
    void DemandUse(const Caller& caller, const std::string& stream);
    void Record(const Caller& caller, const std::string& stream, const std::string& code,
                const std::string& reason);
    std::int32_t Subscribe(const Caller& caller, const std::string& uuid,
                           const std::string& stream);
    std::int32_t Tell(const Caller& caller, const std::string& stream, const Verdict& verdict);

    StreamRegistry& registry_;
    StreamFiles& files_;
    RemoteStreams& remote_;
    const Access& access_;
    EventLog& events_;
    const Log log_;
    const TopicCalls topics_;
    Answers answers_;
    Refusals reasons_;
    std::uint64_t refused_ = 0;
};

}  // namespace kvo::brokerd
