#include "remote/federation_engine_loader.h"

#include <dlfcn.h>
#include <stdexcept>
#include <string>

namespace kvo::brokerd {

std::unique_ptr<FederationEngine> LoadFederationEngine(const FederationOptions& options) {
    const std::string file = options.module.empty() ? kFederationModule : options.module;
    // Never unloaded: it starts threads that run to the end of the process.
    void* const module = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (module == nullptr) {
        const char* const fault = ::dlerror();
        throw std::runtime_error("remote streams need the module " + file +
                                 ", which cannot be loaded: " + (fault != nullptr ? fault : "?"));
    }
    void* const symbol = ::dlsym(module, kMakeFederationEngine);
    if (symbol == nullptr) {
        throw std::runtime_error("the module " + file + " is no engine for remote streams");
    }
    const auto make = reinterpret_cast<MakeFederationEngine>(symbol);
    return std::unique_ptr<FederationEngine>(make(kFederationAbi, options));
}

}  // namespace kvo::brokerd
