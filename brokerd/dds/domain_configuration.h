#pragma once

#include "kvo/brokerd/federation_engine.h"

#include <string>

namespace kvo::brokerd::dds {

/// Cyclone DDS's configuration for what the broker was told, as XML. Throws std::runtime_error
/// naming the option that is missing.
/// @param plugins directory of the engine's security plugins; empty: the loader finds them.
std::string DomainConfiguration(const FederationOptions& options, const std::string& plugins);

}  // namespace kvo::brokerd::dds
