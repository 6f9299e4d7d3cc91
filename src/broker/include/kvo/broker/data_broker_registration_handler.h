#pragma once

#include "gorm/cor/rr/deferred.h"
#include "gorm/cor/rr/service.h"
#include "kvo/broker_interface_export.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kvo {

struct RemoteStreamState;
struct StreamDescription;

/// The broker's side of DataBrokerRegistrationSync: the same operations in the same order, each
/// with the caller. What a handler throws reaches the caller as the text of an error response.
/// Where another broker may have to be asked first, the answer may come later.
class KVO_BROKER_INTERFACE_EXPORT DataBrokerRegistrationHandler {
public:
    using Caller = gorm::cor::rr::Caller;
    template <class T>
    using Deferred = gorm::cor::rr::Deferred<T>;

    virtual ~DataBrokerRegistrationHandler();

    virtual void SendHeartbeat(const Caller&, const std::string& client_id) = 0;
    virtual std::int32_t AddPublisher(const Caller&, const std::string& stream,
                                      std::int32_t latency_ms, std::int32_t deadline_s,
                                      std::int32_t max_data_sample_size,
                                      std::int32_t number_of_samples, bool compute_checksum,
                                      const std::string& publisher_key) = 0;
    virtual std::int32_t RemovePublisher(const Caller&, const std::string& stream) = 0;
    virtual void NotifyNewData(const Caller&, const std::string& stream) = 0;
    virtual void RelayNewData(const Caller&, const std::string& stream) = 0;
    virtual Deferred<std::int32_t> AddSubscriber(const Caller&, const std::string& subscriber_uuid,
                                                 const std::string& stream,
                                                 const std::string& remote_broker_uri,
                                                 std::int32_t latency_ms,
                                                 std::int32_t deadline_s) = 0;
    virtual std::int32_t RemoveSubscriber(const Caller&, const std::string& stream,
                                          const std::string& subscriber_uuid) = 0;
    virtual std::string GetPublisherKey(const Caller&, const std::string& stream) = 0;
    virtual std::int32_t GetNotificationPort(const Caller&, const std::string& stream) = 0;
    virtual std::vector<std::string> GetStreamStatistics(const Caller&,
                                                         const std::string& stream) = 0;
    virtual std::int32_t GetHeartbeatPeriod(const Caller&) = 0;
    virtual std::int32_t GetHeartbeatTimeout(const Caller&) = 0;
    virtual std::string GetShmFilePath(const Caller&, const std::string& stream) = 0;
    virtual std::string GetExistingShmPath(const Caller&, const std::string& stream) = 0;
    virtual bool IsStreamIdFree(const Caller&, const std::string& stream) = 0;
    virtual bool HasLocalPublisher(const Caller&, const std::string& stream) = 0;
    virtual Deferred<bool> HasRemotePublisher(const Caller&, const std::string& remote_broker_uri,
                                              const std::string& stream) = 0;
    virtual void ReportDataWritten(const Caller&, const std::string& stream,
                                   std::int32_t payload_size, std::int64_t written_ms) = 0;
    virtual std::int32_t GetMaxBufferSize(const Caller&, std::int32_t max_data_sample_size) = 0;
    virtual std::vector<std::string> ListRegisteredStreams(const Caller&) = 0;
    virtual std::vector<std::string> ListConnectedBrokers(const Caller&) = 0;
    virtual std::vector<std::string> GetCapabilities(const Caller&) = 0;
    virtual std::string GetRefusalReason(const Caller&, const std::string& stream) = 0;
    virtual StreamDescription DescribeStream(const Caller&, const std::string& stream,
                                             const std::string& importer) = 0;
    virtual std::vector<RemoteStreamState> ListRemoteStreams(const Caller&) = 0;
    virtual std::int32_t EndStream(const Caller&, const std::string& stream) = 0;
};

/// The service that decodes calls and runs them on the handler, which must outlive it.
KVO_BROKER_INTERFACE_EXPORT std::unique_ptr<gorm::cor::rr::Service>
MakeDataBrokerRegistrationService(DataBrokerRegistrationHandler& handler);

}  // namespace kvo
