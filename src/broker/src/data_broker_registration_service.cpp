#include "gorm/cor/rr/packing.h"
#include "kvo/broker/data_broker_registration_handler.h"
#include "kvo/broker/remote_stream_state.h"
#include "kvo/broker/stream_description.h"

#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>

namespace kvo {
namespace {

using gorm::cor::rr::Caller;
using Handler = DataBrokerRegistrationHandler;

using Packed = gorm::cor::rr::Deferred<std::string>;

template <class T>
constexpr bool kIsDeferred = false;
template <class T>
constexpr bool kIsDeferred<gorm::cor::rr::Deferred<T>> = true;

// How one operation is called, with the types of its parameters and its result.
template <auto Operation>
struct Decoded;

template <class Result, class... Parameters,
          Result (Handler::*Operation)(const Caller&, Parameters...)>
struct Decoded<Operation> {
    static Packed Run(Handler& handler, const Caller& caller, std::string_view method,
                      const msgpack::object& params) {
        const auto arguments =
            gorm::cor::rr::UnpackParams<std::decay_t<Parameters>...>(method, params);
        return std::apply(
            [&](const auto&... argument) -> Packed {
                if constexpr (std::is_void_v<Result>) {
                    (handler.*Operation)(caller, argument...);
                    return gorm::cor::rr::PackNil();
                } else if constexpr (kIsDeferred<Result>) {
                    return (handler.*Operation)(caller, argument...).Map([](const auto& result) {
                        return gorm::cor::rr::PackResult(result);
                    });
                } else {
                    return gorm::cor::rr::PackResult((handler.*Operation)(caller, argument...));
                }
            },
            arguments);
    }
};

using Run = Packed (*)(Handler&, const Caller&, std::string_view, const msgpack::object&);

const std::unordered_map<std::string_view, Run>& Operations() {
    static const std::unordered_map<std::string_view, Run> kOperations = {
        {"SendHeartbeat", Decoded<&Handler::SendHeartbeat>::Run},
        {"AddPublisher", Decoded<&Handler::AddPublisher>::Run},
        {"RemovePublisher", Decoded<&Handler::RemovePublisher>::Run},
        {"NotifyNewData", Decoded<&Handler::NotifyNewData>::Run},
        {"RelayNewData", Decoded<&Handler::RelayNewData>::Run},
        {"AddSubscriber", Decoded<&Handler::AddSubscriber>::Run},
        {"RemoveSubscriber", Decoded<&Handler::RemoveSubscriber>::Run},
        {"GetPublisherKey", Decoded<&Handler::GetPublisherKey>::Run},
        {"GetNotificationPort", Decoded<&Handler::GetNotificationPort>::Run},
        {"GetStreamStatistics", Decoded<&Handler::GetStreamStatistics>::Run},
        {"GetHeartbeatPeriod", Decoded<&Handler::GetHeartbeatPeriod>::Run},
        {"GetHeartbeatTimeout", Decoded<&Handler::GetHeartbeatTimeout>::Run},
        {"GetShmFilePath", Decoded<&Handler::GetShmFilePath>::Run},
        {"GetExistingShmPath", Decoded<&Handler::GetExistingShmPath>::Run},
        {"IsStreamIdFree", Decoded<&Handler::IsStreamIdFree>::Run},
        {"HasLocalPublisher", Decoded<&Handler::HasLocalPublisher>::Run},
        {"HasRemotePublisher", Decoded<&Handler::HasRemotePublisher>::Run},
        {"ReportDataWritten", Decoded<&Handler::ReportDataWritten>::Run},
        {"GetMaxBufferSize", Decoded<&Handler::GetMaxBufferSize>::Run},
        {"ListRegisteredStreams", Decoded<&Handler::ListRegisteredStreams>::Run},
        {"ListConnectedBrokers", Decoded<&Handler::ListConnectedBrokers>::Run},
        {"GetCapabilities", Decoded<&Handler::GetCapabilities>::Run},
        {"GetRefusalReason", Decoded<&Handler::GetRefusalReason>::Run},
        {"DescribeStream", Decoded<&Handler::DescribeStream>::Run},
        {"ListRemoteStreams", Decoded<&Handler::ListRemoteStreams>::Run},
    };
    return kOperations;
}

class DataBrokerRegistrationService final : public gorm::cor::rr::Service {
public:
    explicit DataBrokerRegistrationService(Handler& handler) : handler_(handler) {}

    Packed Dispatch(const Caller& caller, std::string_view method,
                    const msgpack::object& params) override {
        const auto operation = Operations().find(method);
        if (operation == Operations().end()) {
            // A foreign name may be long and is not printed as it is.
            throw gorm::cor::Error("unknown method of " + std::to_string(method.size()) +
                                   " characters");
        }
        return operation->second(handler_, caller, method, params);
    }

private:
    Handler& handler_;
};

}  // namespace

DataBrokerRegistrationHandler::~DataBrokerRegistrationHandler() = default;

std::unique_ptr<gorm::cor::rr::Service> MakeDataBrokerRegistrationService(
    DataBrokerRegistrationHandler& handler) {
    return std::make_unique<DataBrokerRegistrationService>(handler);
}

}  // namespace kvo
