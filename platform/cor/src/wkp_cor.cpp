#include "wkp_cor.h"

#include "address.h"
#include "curve_client.h"
#include "gorm/cor/process.h"
#include "name_value_file.h"
#include "runtime.h"
#include "wkp_channel.h"
#include "wkp_topic_reader.h"

#include <cstdlib>
#include <utility>

namespace gorm::cor {
namespace {

void CheckUsable(const network::uri& uri) {
    if (in_forked_child()) {
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

std::unique_ptr<rr::Channel> WkpCor::OpenChannel(const network::uri& uri,
                                                 const rr::qos::QoSList& qos,
                                                 const Properties& properties) {
    return std::make_unique<rr::WkpChannel>(Runtime::Get().hub(),
                                            AddressOf(uri, kRequestScheme, properties), qos);
}

std::unique_ptr<ps::TopicReader> WkpCor::OpenTopicReader(
    const network::uri& uri, std::shared_ptr<const ps::SampleCodec> codec,
    const Properties& properties) {
    return std::make_unique<ps::WkpTopicReader>(
        Runtime::Get().context(), AddressOf(uri, kTopicScheme, properties), std::move(codec));
}

}  // namespace gorm::cor
