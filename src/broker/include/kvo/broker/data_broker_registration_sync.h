#pragma once

#include "gorm/cor/rr/client.h"
#include "gorm/cor/type_traits.h"
#include "kvo/broker/stream_reporter.h"
#include "kvo/broker_interface_export.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kvo {

struct RemoteStreamState;
struct StreamDescription;

/// A broker's request/reply interface. Every call blocks until the answer is there and throws an
/// exception derived from std::exception when none comes (gorm::cor::rr::ReplyTimeout,
/// ConnectionLost, RemoteError), except the two one-way calls, which return at once.
/// Threads: any number at once.
class KVO_BROKER_INTERFACE_EXPORT DataBrokerRegistrationSync : public gorm::cor::rr::Client {
public:
    ~DataBrokerRegistrationSync() override;

    /// @param client_id stream of a publisher, uuid of a subscriber.
    virtual void SendHeartbeat(const std::string& client_id) = 0;
    /// @param publisher_key empty at first, afterwards what GetPublisherKey gave. @return
    /// BrokerResult
    virtual std::int32_t AddPublisher(const std::string& stream, std::int32_t latency_ms,
                                      std::int32_t deadline_s, std::int32_t max_data_sample_size,
                                      std::int32_t number_of_samples, bool compute_checksum,
                                      const std::string& publisher_key) = 0;
    virtual std::int32_t RemovePublisher(const std::string& stream) = 0;
    /// One-way.
    virtual void NotifyNewData(const std::string& stream) = 0;
    /// @param remote_broker_uri empty: the stream is of this host. @return BrokerResult
    virtual std::int32_t AddSubscriber(const std::string& subscriber_uuid,
                                       const std::string& stream,
                                       const std::string& remote_broker_uri,
                                       std::int32_t latency_ms, std::int32_t deadline_s) = 0;
    virtual std::int32_t RemoveSubscriber(const std::string& stream,
                                          const std::string& subscriber_uuid) = 0;
    virtual std::string GetPublisherKey(const std::string& stream) = 0;
    virtual std::int32_t GetNotificationPort(const std::string& stream) = 0;
    /// @return seven strings: time of the last write (ms since the Unix epoch), local subscribers,
    /// samples written, payload bytes written, samples dropped or lost, publisher state (1 local,
    /// 2 remote, 0 gone), path of the stream file.
    virtual std::vector<std::string> GetStreamStatistics(const std::string& stream) = 0;
    virtual std::int32_t GetHeartbeatPeriod() = 0;   // seconds
    virtual std::int32_t GetHeartbeatTimeout() = 0;  // seconds
    virtual std::string GetShmFilePath(const std::string& stream) = 0;
    virtual std::string GetExistingShmPath(const std::string& stream) = 0;
    virtual bool IsStreamIdFree(const std::string& stream) = 0;
    virtual bool HasLocalPublisher(const std::string& stream) = 0;
    virtual bool HasRemotePublisher(const std::string& remote_broker_uri,
                                    const std::string& stream) = 0;
    /// One-way. @param payload_size bytes. @param written_ms since the Unix epoch.
    virtual void ReportDataWritten(const std::string& stream, std::int32_t payload_size,
                                   std::int64_t written_ms) = 0;
    virtual std::int32_t GetMaxBufferSize(std::int32_t max_data_sample_size) = 0;  // bytes
    virtual std::vector<std::string> ListRegisteredStreams() = 0;
    virtual std::vector<std::string> ListConnectedBrokers() = 0;

    /// What this broker offers beyond the operations above; empty is an ordinary answer.
    virtual std::vector<std::string> GetCapabilities() = 0;
    /// Why this broker last refused the caller's process the stream, in a sentence with the values;
    /// empty: it did not. Brokers that do not know the question answer with an error.
    virtual std::string GetRefusalReason(const std::string& stream) = 0;
    /// What another broker needs to import the stream.
    /// @param importer the calling broker, for which the stream is exported for some seconds from
    /// now on; empty: nothing is exported.
    virtual StreamDescription DescribeStream(const std::string& stream,
                                             const std::string& importer) = 0;
    /// The streams that this broker imports and exports.
    virtual std::vector<RemoteStreamState> ListRemoteStreams() = 0;
    /// Ends the registration of the stream's publisher, whichever process it is. For callers with
    /// the right to administer the stream. @return 1; -1: the stream has no publisher of this
    /// host; kNoRight. Brokers that do not know the operation answer with an error.
    virtual std::int32_t EndStream(const std::string& stream) = 0;

    /// What a publisher of the stream reports with, one call per sample. Asks the broker nothing.
    virtual std::shared_ptr<StreamReporter> OpenStream(const std::string& stream) = 0;
};

}  // namespace kvo

template <>
struct gorm::cor::CorTypeTraits<kvo::DataBrokerRegistrationSync> {
    static constexpr const char* name = "kvo.DataBrokerRegistrationSync";
    static constexpr const char* libraryName = "kvo-broker-interface";
};
