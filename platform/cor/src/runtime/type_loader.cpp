#include "runtime/type_loader.h"

#include "gorm/cor/errors.h"

#include <algorithm>
#include <cstddef>
#include <dlfcn.h>

namespace gorm::cor {
namespace {

using RegisterTypes = void (*)(TypeRegistry*);

std::string LastLoaderError() {
    const char* const text = ::dlerror();
    return text == nullptr ? "unknown reason" : text;
}

RegisterTypes FindFunction(const std::string& library) {
    std::string symbol = library + "_register_types";
    std::replace(symbol.begin(), symbol.end(), '-', '_');
    void* found = ::dlsym(RTLD_DEFAULT, symbol.c_str());
    std::string reason;
    for (const char* const suffix : {".so", ".so.0"}) {
        if (found != nullptr) {
            break;
        }
        // Never closed: the types that it registers stay registered.
        void* const handle = ::dlopen(("lib" + library + suffix).c_str(), RTLD_NOW | RTLD_GLOBAL);
        if (handle != nullptr) {
            found = ::dlsym(handle, symbol.c_str());
        }
        if (found == nullptr) {
            reason += (reason.empty() ? "" : "; ") + LastLoaderError();
        }
    }
    if (found == nullptr) {
        throw Error("type library " + library + " cannot be used: " + reason);
    }
    return reinterpret_cast<RegisterTypes>(found);
}

}  // namespace

void TypeLoader::Load(const std::string& library) {
    if (loaded_.count(library) == 0) {
        FindFunction(library)(&registry_);
        loaded_.insert(library);
    }
}

TypeRegistry::ClientFactory TypeLoader::Interface(const std::string& name,
                                                  const std::string& library) {
    const std::lock_guard lock(mutex_);
    Load(library);
    const auto* const factory = registry_.FindInterface(name);
    if (factory == nullptr) {
        throw Error("type library " + library + " has no interface " + name);
    }
    return *factory;
}

std::shared_ptr<const ps::SampleCodec> TypeLoader::Sample(const std::string& name,
                                                          const std::string& library) {
    const std::lock_guard lock(mutex_);
    Load(library);
    auto codec = registry_.FindSample(name);
    if (codec == nullptr) {
        throw Error("type library " + library + " has no sample " + name);
    }
    return codec;
}

}  // namespace gorm::cor
