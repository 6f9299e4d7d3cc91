#pragma once

#include "kvo/os_export.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kvo::os {

/// Two lower-case digits for each byte, in their order.
KVO_OS_EXPORT std::string ToHex(const void* bytes, std::size_t count);

/// Sixteen lower-case digits, the most significant first.
KVO_OS_EXPORT std::string ToHex(std::uint64_t number);

}  // namespace kvo::os
