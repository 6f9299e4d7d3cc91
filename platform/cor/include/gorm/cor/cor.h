#pragma once

#include "gorm/cor/errors.h"
#include "gorm/cor/export.h"
#include "gorm/cor/properties.h"
#include "gorm/cor/ps/subscriber.h"
#include "gorm/cor/rr/channel.h"
#include "gorm/cor/rr/client.h"
#include "gorm/cor/rr/qos.h"
#include "gorm/cor/type_traits.h"
#include "network/uri.hpp"

#include <memory>
#include <string>
#include <utility>

namespace gorm::cor {

/// One binding of the middleware to a transport. Any thread.
class GORM_COR_EXPORT Cor {
public:
    virtual ~Cor();

    /// What holds when a caller's properties say nothing else: what stands in the file that the
    /// environment names (docs/protocol.md), "name = value" in each line. Throws Error.
    virtual Properties getDefaultProperties() const = 0;

    /// Begins to connect to the URI; throws Error when the URI names no usable address or a
    /// property is unknown.
    virtual std::unique_ptr<rr::Channel> OpenChannel(const network::uri& uri,
                                                     const rr::qos::QoSList& qos,
                                                     const Properties& properties) = 0;
    virtual std::unique_ptr<ps::TopicReader> OpenTopicReader(
        const network::uri& uri, std::shared_ptr<const ps::SampleCodec> codec,
        const Properties& properties) = 0;

    template <class T>
    std::unique_ptr<ps::Subscriber<T>> CreateSubscriber(const network::uri& uri,
                                                        const Properties& properties) {
        auto codec = FindSample(CorTypeTraits<T>::name, CorTypeTraits<T>::libraryName);
        Properties all = properties;
        all.merge(getDefaultProperties());
        return std::make_unique<ps::Subscriber<T>>(OpenTopicReader(uri, codec, all), codec);
    }

    /// The codec of a sample type, after its library has registered it. Throws Error when it
    /// cannot be found.
    static std::shared_ptr<const ps::SampleCodec> FindSample(const char* name,
                                                             const char* library_name);
    static std::unique_ptr<rr::Client> CreateClient(const char* name, const char* library_name,
                                                    std::unique_ptr<rr::Channel> channel);
};

/// Gives the bindings and the clients on them.
class GORM_COR_EXPORT VekFactory {
public:
    /// The binding for the scheme of the URI; throws UnknownScheme.
    Cor& getCor(const network::uri& uri);

    /// A client of the interface T at the URI. The caller's properties go before the defaults.
    template <class T>
    std::unique_ptr<T> getClient(const network::uri& uri, const rr::qos::QoSList& qos,
                                 const Properties& properties) {
        Cor& cor = getCor(uri);
        Properties all = properties;
        all.merge(cor.getDefaultProperties());
        auto client = Cor::CreateClient(CorTypeTraits<T>::name, CorTypeTraits<T>::libraryName,
                                        cor.OpenChannel(uri, qos, all));
        if (dynamic_cast<T*>(client.get()) == nullptr) {
            throw Error(std::string("the registered client of ") + CorTypeTraits<T>::name +
                        " has another interface");
        }
        return std::unique_ptr<T>(dynamic_cast<T*>(client.release()));
    }
};

/// Loads the binding for the scheme of the URI.
/// Throws network::uri_syntax_error for a text that is no URI and UnknownScheme.
GORM_COR_EXPORT VekFactory& loadCorForUri(const std::string& uri, const Properties& properties);

}  // namespace gorm::cor
