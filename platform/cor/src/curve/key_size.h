#pragma once

#include <cstddef>

namespace gorm::cor {

// Of a CURVE key, as bytes and as the text that stands in files.
inline constexpr std::size_t kKeyBytes = 32;
inline constexpr std::size_t kKeyCharacters = 40;

}  // namespace gorm::cor
