#pragma once

#include <string>
#include <string_view>

namespace kvo::brokerd {

/// 128 bits of the kernel's random source as 32 hexadecimal digits. Never logged.
std::string DrawPublisherKey();

/// Takes the same time wherever the keys differ.
bool SameKey(std::string_view a, std::string_view b);

}  // namespace kvo::brokerd
