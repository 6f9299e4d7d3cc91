#include "gorm/cor/cor.h"

#include "runtime/type_loader.h"
#include "runtime/wkp_cor.h"
#include "transport/address.h"
#include "transport/context.h"

namespace gorm::cor {
namespace {

/// What the middleware has once per process. Any thread.
struct Runtime {
    TypeLoader types;
    VekFactory factory;
    WkpCor wkp{transport_context()};
};

// Never destroyed, since the middleware's threads and the application's static objects may use it
// until the process ends.
Runtime& runtime() {
    static auto* const instance = new Runtime;
    return *instance;
}

}  // namespace

Cor::~Cor() = default;

std::shared_ptr<const ps::SampleCodec> Cor::FindSample(const char* name, const char* library_name) {
    return runtime().types.Sample(name, library_name);
}

std::unique_ptr<rr::Client> Cor::CreateClient(const char* name, const char* library_name,
                                              std::unique_ptr<rr::Channel> channel) {
    return runtime().types.Interface(name, library_name)(std::move(channel));
}

Cor& VekFactory::getCor(const network::uri& uri) {
    if (uri.scheme() != kRequestScheme && uri.scheme() != kTopicScheme) {
        throw UnknownScheme("no binding for the scheme of \"" + uri.string() + "\"; known are " +
                            kRequestScheme + " and " + kTopicScheme);
    }
    return runtime().wkp;
}

VekFactory& loadCorForUri(const std::string& text, const Properties& properties) {
    const network::uri uri(text);
    VekFactory& factory = runtime().factory;
    factory.getCor(uri);
    if (!properties.empty()) {
        throw Error("unknown property \"" + properties.begin()->first + "\" for \"" + text + "\"");
    }
    return factory;
}

}  // namespace gorm::cor
