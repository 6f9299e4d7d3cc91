#pragma once

#include <cstddef>

namespace kvo {

/// Fills from the kernel's generator; throws std::system_error.
void FillRandom(void* bytes, std::size_t count);

}  // namespace kvo
