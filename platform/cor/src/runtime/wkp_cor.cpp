#include "runtime/wkp_cor.h"

#include "curve/curve_client.h"
#include "curve/name_value_file.h"
#include "kvo/os/fork_guard.h"
#include "ps/wkp_topic_reader.h"
#include "rr/wkp_channel.h"
#include "runtime/runtime.h"
#include "transport/address.h"

#include <charconv>
#include <chrono>
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

constexpr const char* kSpin = "local-spin-us";
constexpr int kLongestSpinUs = 1000;

struct Target {
    Address address;
    std::chrono::microseconds spin{0};
};

// Takes the property out of the others.
std::chrono::microseconds TakeSpin(Properties& properties) {
    const auto property = properties.extract(kSpin);
    if (property.empty()) {
        return {};
    }
    const std::string& text = property.mapped();
    int us = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), us);
    if (error != std::errc() || end != text.data() + text.size() || us < 0 || us > kLongestSpinUs) {
        throw Error(std::string("property \"") + kSpin + "\" of \"" + text + "\" refused: 0 to " +
                    std::to_string(kLongestSpinUs));
    }
    return std::chrono::microseconds(us);
}

Target TargetOf(const network::uri& uri, const char* scheme, Properties properties) {
    CheckUsable(uri);
    Target target{Address::ToConnect(uri, scheme)};
    try {
        target.spin = TakeSpin(properties);
        target.address.curve = CurveClientOf(properties, target.address.host);
    } catch (const Error& error) {
        throw Error("\"" + uri.string() + "\": " + error.what());
    }
    return target;
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
                                            TargetOf(uri, kRequestScheme, properties).address, qos);
}

std::unique_ptr<ps::TopicReader> WkpCor::OpenTopicReader(
    const network::uri& uri, std::shared_ptr<const ps::SampleCodec> codec,
    const Properties& properties) {
    const Target target = TargetOf(uri, kTopicScheme, properties);
    return std::make_unique<ps::WkpTopicReader>(Runtime::Get().context(), target.address,
                                                target.spin, std::move(codec));
}

}  // namespace gorm::cor
