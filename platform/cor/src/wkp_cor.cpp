#include "wkp_cor.h"

#include "address.h"
#include "runtime.h"
#include "wkp_channel.h"
#include "wkp_topic_reader.h"

#include <utility>

namespace gorm::cor {
namespace {

void CheckUsable(const network::uri& uri, const Properties& properties) {
    if (!properties.empty()) {
        throw Error("unknown property \"" + properties.begin()->first + "\" for \"" + uri.string() +
                    "\"");
    }
    if (in_forked_child()) {
        throw Error("\"" + uri.string() +
                    "\" cannot be used: the middleware works only in the process that forked "
                    "this one");
    }
}

}  // namespace

Properties WkpCor::getDefaultProperties() const {
    return {};
}

std::unique_ptr<rr::Channel> WkpCor::OpenChannel(const network::uri& uri,
                                                 const rr::qos::QoSList& qos,
                                                 const Properties& properties) {
    CheckUsable(uri, properties);
    return std::make_unique<rr::WkpChannel>(Runtime::Get().hub(),
                                            Address::ToConnect(uri, kRequestScheme), qos);
}

std::unique_ptr<ps::TopicReader> WkpCor::OpenTopicReader(
    const network::uri& uri, std::shared_ptr<const ps::SampleCodec> codec,
    const Properties& properties) {
    CheckUsable(uri, properties);
    return std::make_unique<ps::WkpTopicReader>(
        Runtime::Get().context(), Address::ToConnect(uri, kTopicScheme), std::move(codec));
}

}  // namespace gorm::cor
