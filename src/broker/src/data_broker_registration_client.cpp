#include "data_broker_registration_client.h"

#include "broker_capabilities.h"
#include "channel_reporter.h"
#include "gorm/cor/rr/packing.h"
#include "kvo/broker/operations.h"
#include "kvo/broker/remote_stream_state.h"
#include "kvo/broker/stream_description.h"

#include <exception>
#include <utility>

namespace kvo {
namespace {

using gorm::cor::rr::Channel;
using gorm::cor::rr::ListenerRegistration;
using gorm::cor::rr::PackParams;
using gorm::cor::rr::UnpackResult;
using Sync = DataBrokerRegistrationSync;

template <class Result, class... Parameters>
Result ResultOf(Result (Sync::*)(Parameters...));

class DataBrokerRegistrationClient final : public DataBrokerRegistrationSync {
public:
    explicit DataBrokerRegistrationClient(std::unique_ptr<Channel> channel)
        : channel_(std::move(channel)), capabilities_(std::make_shared<BrokerCapabilities>()) {
        // Until the broker has answered, and for one that does not, all goes over the wire. First
        // the listener, so that no connection is missed; then for one that stands already.
        connection_ = channel_->RegisterConnectionListener([this](bool connected) {
            if (connected) {
                AskForCapabilities();
            } else {
                capabilities_->Reset();
            }
        });
        AskForCapabilities();
    }
    ~DataBrokerRegistrationClient() override {
        channel_->Close();
        AwaitUsers();
    }

    boost::future<void> Connect() override { return channel_->Connect(); }
    ListenerRegistration RegisterConnectionListener(std::function<void(bool)> listener) override {
        return channel_->RegisterConnectionListener(std::move(listener));
    }

    void SendHeartbeat(const std::string& client_id) override {
        Request<&Sync::SendHeartbeat>(client_id);
    }
    std::int32_t AddPublisher(const std::string& stream, std::int32_t latency_ms,
                              std::int32_t deadline_s, std::int32_t max_data_sample_size,
                              std::int32_t number_of_samples, bool compute_checksum,
                              const std::string& publisher_key) override {
        return Request<&Sync::AddPublisher>(stream, latency_ms, deadline_s, max_data_sample_size,
                                            number_of_samples, compute_checksum, publisher_key);
    }
    std::int32_t RemovePublisher(const std::string& stream) override {
        return Request<&Sync::RemovePublisher>(stream);
    }
    void NotifyNewData(const std::string& stream) override {
        channel_->Notify(Operation<&Sync::NotifyNewData>::kName, PackParams(stream));
    }
    std::int32_t AddSubscriber(const std::string& subscriber_uuid, const std::string& stream,
                               const std::string& remote_broker_uri, std::int32_t latency_ms,
                               std::int32_t deadline_s) override {
        return Request<&Sync::AddSubscriber>(subscriber_uuid, stream, remote_broker_uri, latency_ms,
                                             deadline_s);
    }
    std::int32_t RemoveSubscriber(const std::string& stream,
                                  const std::string& subscriber_uuid) override {
        return Request<&Sync::RemoveSubscriber>(stream, subscriber_uuid);
    }
    std::string GetPublisherKey(const std::string& stream) override {
        return Request<&Sync::GetPublisherKey>(stream);
    }
    std::int32_t GetNotificationPort(const std::string& stream) override {
        return Request<&Sync::GetNotificationPort>(stream);
    }
    std::vector<std::string> GetStreamStatistics(const std::string& stream) override {
        return Request<&Sync::GetStreamStatistics>(stream);
    }
    std::int32_t GetHeartbeatPeriod() override { return Request<&Sync::GetHeartbeatPeriod>(); }
    std::int32_t GetHeartbeatTimeout() override { return Request<&Sync::GetHeartbeatTimeout>(); }
    std::string GetShmFilePath(const std::string& stream) override {
        return Request<&Sync::GetShmFilePath>(stream);
    }
    std::string GetExistingShmPath(const std::string& stream) override {
        return Request<&Sync::GetExistingShmPath>(stream);
    }
    bool IsStreamIdFree(const std::string& stream) override {
        return Request<&Sync::IsStreamIdFree>(stream);
    }
    bool HasLocalPublisher(const std::string& stream) override {
        return Request<&Sync::HasLocalPublisher>(stream);
    }
    bool HasRemotePublisher(const std::string& remote_broker_uri,
                            const std::string& stream) override {
        return Request<&Sync::HasRemotePublisher>(remote_broker_uri, stream);
    }
    void ReportDataWritten(const std::string& stream, std::int32_t payload_size,
                           std::int64_t written_ms) override {
        channel_->Notify(Operation<&Sync::ReportDataWritten>::kName,
                         PackParams(stream, payload_size, written_ms));
    }
    std::int32_t GetMaxBufferSize(std::int32_t max_data_sample_size) override {
        return Request<&Sync::GetMaxBufferSize>(max_data_sample_size);
    }
    std::vector<std::string> ListRegisteredStreams() override {
        return Request<&Sync::ListRegisteredStreams>();
    }
    std::vector<std::string> ListConnectedBrokers() override {
        return Request<&Sync::ListConnectedBrokers>();
    }
    std::vector<std::string> GetCapabilities() override {
        return Request<&Sync::GetCapabilities>();
    }
    std::string GetRefusalReason(const std::string& stream) override {
        return Request<&Sync::GetRefusalReason>(stream);
    }
    StreamDescription DescribeStream(const std::string& stream,
                                     const std::string& importer) override {
        return Request<&Sync::DescribeStream>(stream, importer);
    }
    std::vector<RemoteStreamState> ListRemoteStreams() override {
        return Request<&Sync::ListRemoteStreams>();
    }
    std::int32_t EndStream(const std::string& stream) override {
        return Request<&Sync::EndStream>(stream);
    }
    std::shared_ptr<StreamReporter> OpenStream(const std::string& stream) override {
        return std::make_shared<ChannelReporter>(stream, channel_, capabilities_);
    }

private:
    template <auto Method, class... Arguments>
    decltype(ResultOf(Method)) Request(const Arguments&... arguments) {
        static_assert(Operation<Method>::kKind != OperationKind::kOneWay);
        constexpr const char* name = Operation<Method>::kName;
        return UnpackResult<decltype(ResultOf(Method))>(
            name, channel_->Request(name, PackParams(arguments...)));
    }

    void AskForCapabilities() {
        channel_->RequestAsync(
            "GetCapabilities", PackParams(), [known = capabilities_](const auto& result) {
                try {
                    known->Set(UnpackResult<std::vector<std::string>>("GetCapabilities", result));
                } catch (const std::exception&) {  // no capability that we know
                }
            });
    }

    const std::shared_ptr<Channel> channel_;  // shared with reporters
    const std::shared_ptr<BrokerCapabilities> capabilities_;
    ListenerRegistration connection_;
};

}  // namespace

DataBrokerRegistrationSync::~DataBrokerRegistrationSync() = default;

std::unique_ptr<gorm::cor::rr::Client> MakeDataBrokerRegistrationClient(
    std::unique_ptr<gorm::cor::rr::Channel> channel) {
    return std::make_unique<DataBrokerRegistrationClient>(std::move(channel));
}

}  // namespace kvo
