#include "core/broker_connection.h"

#include <boost/thread/future.hpp>

#include <memory>

namespace kvo {
namespace {

constexpr auto kConnectWait = boost::chrono::seconds(10);

}  // namespace

void CreateBrokerClient(TransferState& state, gorm::cor::VekFactory& factory,
                        const network::uri& broker, std::chrono::milliseconds reply_time) {
    namespace qos = gorm::cor::rr::qos;
    state.broker_client.Replace(factory.getClient<DataBrokerRegistrationSync>(
        broker, qos::QoSList{std::make_shared<qos::ReplyTime>(reply_time)}, {}));
}

bool AwaitBrokerConnection(TransferState& state) {
    auto connected = state.broker_client.Call(&DataBrokerRegistrationSync::Connect);
    return connected.wait_for(kConnectWait) == boost::future_status::ready;
}

}  // namespace kvo
