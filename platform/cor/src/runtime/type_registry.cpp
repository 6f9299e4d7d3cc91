#include "gorm/cor/type_registry.h"

#include <utility>

namespace gorm::cor {

void TypeRegistry::AddInterface(const std::string& name, ClientFactory factory) {
    interfaces_[name] = std::move(factory);
}

void TypeRegistry::AddSample(const std::string& name,
                             std::shared_ptr<const ps::SampleCodec> codec) {
    samples_[name] = std::move(codec);
}

const TypeRegistry::ClientFactory* TypeRegistry::FindInterface(const std::string& name) const {
    const auto found = interfaces_.find(name);
    return found == interfaces_.end() ? nullptr : &found->second;
}

std::shared_ptr<const ps::SampleCodec> TypeRegistry::FindSample(const std::string& name) const {
    const auto found = samples_.find(name);
    return found == samples_.end() ? nullptr : found->second;
}

}  // namespace gorm::cor
