#pragma once

#include "kvo/os_export.h"

#include <array>

namespace kvo::os {

using ProcessIdentity = std::array<unsigned char, 16>;

/// The identity of this process, drawn once from the kernel's random source; the first byte is
/// not zero. Every request of this process carries it, and it stands beside the process's lock
/// bytes. Throws std::system_error when none can be drawn. Any thread.
KVO_OS_EXPORT const ProcessIdentity& OwnProcessIdentity();

}  // namespace kvo::os
