#include "runtime/wkp_cor.h"

#include "curve/curve_client.h"
#include "curve/name_value_file.h"
#include "kvo/os/fork_guard.h"
#include "ps/wkp_topic_reader.h"
#include "rr/wkp_channel.h"
#include "transport/address.h"

#include <cstdlib>
#include <string>
#include <utility>

namespace gorm::cor {
namespace {

void CheckUsable(const network::uri& uri) {
    if (kvo::os::InForkedChild()) {
        throw Error("\"" + uri.string() +
                    "\" cannot be used: the middleware works only in the process that forked "
                    "this one");
    }
}

Address AddressOf(const network::uri& uri, const char* scheme, const Properties& properties) {
    CheckUsable(uri);
    Address address = Address::ToConnect(uri, scheme);
    try {
        address.curve = CurveClientOf(properties, address.host);
    } catch (const Error& error) {
        throw Error("\"" + uri.string() + "\": " + error.what());
    }
    return address;
}

}  // namespace

Properties WkpCor::getDefaultProperties() const {
    const char* const file = std::getenv(kPropertiesVariable);
    return file == nullptr || file[0] == '\0' ? Properties{} : ReadNameValueFile(file);
}

rr::ClientHub& WkpCor::hub() {
    std::call_once(hub_made_, [this] { hub_ = std::make_unique<rr::ClientHub>(context_); });
    return *hub_;
}

std::unique_ptr<rr::Channel> WkpCor::OpenChannel(const network::uri& uri,
                                                 const rr::qos::QoSList& qos,
                                                 const Properties& properties) {
    Address address = AddressOf(uri, kRequestScheme, properties);
    return std::make_unique<rr::WkpChannel>(hub(), std::move(address), qos);
}

std::unique_ptr<ps::TopicReader> WkpCor::OpenTopicReader(
    const network::uri& uri, std::shared_ptr<const ps::SampleCodec> codec,
    const Properties& properties) {
    return std::make_unique<ps::WkpTopicReader>(context_, AddressOf(uri, kTopicScheme, properties),
                                                std::move(codec));
}

}  // namespace gorm::cor
