#pragma once

#include "kvo/brokerd/federation_engine.h"

#include <memory>

namespace kvo::brokerd {

/// Loads the engine's module. Throws std::runtime_error naming the file and what is wrong with it.
[[nodiscard]] std::unique_ptr<FederationEngine> LoadFederationEngine(
    const FederationOptions& options);

}  // namespace kvo::brokerd
