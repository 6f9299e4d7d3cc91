#pragma once

#include "kvo/os_export.h"

#include <string>
#include <sys/types.h>

namespace kvo::os {

/// Whether what belongs to this user can be trusted: root, the process's own user, the service's
/// ("kvo").
[[nodiscard]] KVO_OS_EXPORT bool IsTrustedUser(uid_t owner);

/// Checks that a directory belongs to a trusted user and that no other one may write it. @return
/// why it cannot be trusted; empty: it can.
[[nodiscard]] KVO_OS_EXPORT std::string CheckTrust(const std::string& directory);

}  // namespace kvo::os
