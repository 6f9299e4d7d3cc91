#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What a broker can do beyond what every broker can, as it answers GetCapabilities.
namespace kvo {

/// Publishers tell subscribers of new data themselves, through the topics' memory. Followed by a
/// space and the port of the notifications.
inline constexpr const char* kLocalTopicsCapability = "local-topics";
/// The broker counts samples and bytes in the stream files.
inline constexpr const char* kLocalAccountingCapability = "local-accounting";

}  // namespace kvo
