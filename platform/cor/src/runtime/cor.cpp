#include "gorm/cor/cor.h"

#include "gorm/cor/ps/sample_codec.h"
#include "gorm/cor/ps/subscriber.h"
#include "runtime/runtime.h"
#include "runtime/wkp_cor.h"

namespace gorm::cor {

ps::SampleCodec::~SampleCodec() = default;

ps::TopicReader::~TopicReader() = default;

Cor::~Cor() = default;

std::shared_ptr<const ps::SampleCodec> Cor::FindSample(const char* name, const char* library_name) {
    return Runtime::Get().types().Sample(name, library_name);
}

std::unique_ptr<rr::Client> Cor::CreateClient(const char* name, const char* library_name,
                                              std::unique_ptr<rr::Channel> channel) {
    return Runtime::Get().types().Interface(name, library_name)(std::move(channel));
}

Cor& VekFactory::getCor(const network::uri& uri) {
    if (uri.scheme() != kRequestScheme && uri.scheme() != kTopicScheme) {
        throw UnknownScheme("no binding for the scheme of \"" + uri.string() + "\"; known are " +
                            kRequestScheme + " and " + kTopicScheme);
    }
    return Runtime::Get().wkp();
}

VekFactory& loadCorForUri(const std::string& text, const Properties& properties) {
    const network::uri uri(text);
    VekFactory& factory = Runtime::Get().factory();
    factory.getCor(uri);
    if (!properties.empty()) {
        throw Error("unknown property \"" + properties.begin()->first + "\" for \"" + text + "\"");
    }
    return factory;
}

}  // namespace gorm::cor
