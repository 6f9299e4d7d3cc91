#pragma once

#include "gorm/cor/type_registry.h"

#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace gorm::cor {

/// The registered types; asks a type library for its own at the first use of one. Any thread.
class TypeLoader {
public:
    /// Throw Error naming type, library and reason.
    TypeRegistry::ClientFactory Interface(const std::string& name, const std::string& library);
    std::shared_ptr<const ps::SampleCodec> Sample(const std::string& name,
                                                  const std::string& library);

private:
    void Load(const std::string& library);

    std::mutex mutex_;
    TypeRegistry registry_;         // under the mutex
    std::set<std::string> loaded_;  // under the mutex: names of libraries
};

}  // namespace gorm::cor
