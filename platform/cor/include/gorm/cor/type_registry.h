#pragma once

#include "gorm/cor/export.h"
#include "gorm/cor/ps/sample_codec.h"
#include "gorm/cor/rr/channel.h"
#include "gorm/cor/rr/client.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace gorm::cor {

/// The types that the middleware can create by name. Filled by the registration functions of the
/// type libraries, under the lock of the runtime.
class GORM_COR_EXPORT TypeRegistry {
public:
    using ClientFactory = std::function<std::unique_ptr<rr::Client>(std::unique_ptr<rr::Channel>)>;

    void AddInterface(const std::string& name, ClientFactory factory);
    void AddSample(const std::string& name, std::shared_ptr<const ps::SampleCodec> codec);

    /// Null when the name is not there.
    const ClientFactory* FindInterface(const std::string& name) const;
    std::shared_ptr<const ps::SampleCodec> FindSample(const std::string& name) const;

private:
    std::map<std::string, ClientFactory> interfaces_;
    std::map<std::string, std::shared_ptr<const ps::SampleCodec>> samples_;
};

}  // namespace gorm::cor
