#pragma once

#include <cstddef>

namespace kvo {

/// Copies `bytes` bytes to a place that no cache holds and that is not read at once, without
/// fetching what it overwrites. After a pause of the writer 1 MiB is there after 72 instead of
/// 115 us; reading all of it then takes 30 instead of 19 us. While both places are in the
/// caches memcpy is quicker.
/// A thread that sees any of it sees what the caller stored before; a thread that sees what the
/// caller stores with release afterwards sees all of it.
/// @param to aligned to 16 bytes; does not overlap `from`.
void CopyUncached(unsigned char* to, const unsigned char* from, std::size_t bytes);

}  // namespace kvo
