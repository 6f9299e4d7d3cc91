#pragma once

#include "kvo/os_export.h"

#include <cstddef>

namespace kvo::os {

/// Fills from the kernel's generator; throws std::system_error.
KVO_OS_EXPORT void FillRandom(void* bytes, std::size_t count);

}  // namespace kvo::os
