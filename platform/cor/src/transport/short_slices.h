#pragma once

namespace gorm::cor {

/// Asks the kernel to let the calling thread run as soon as it is woken, also on the processor of
/// the thread that woke it, at the price of being interrupted sooner when it runs for long: its
/// time slices become half a millisecond, unless they are shorter. From Linux 6.12 on; does nothing
/// before, or for a thread with another policy than the default one.
void RequestShortSlices() noexcept;

}  // namespace gorm::cor
