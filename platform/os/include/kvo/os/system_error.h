#pragma once

#include "kvo/os_export.h"

#include <string>

namespace kvo::os {

/// Throws std::system_error for a value of errno. @param what was tried, with its object.
[[noreturn]] KVO_OS_EXPORT void ThrowErrno(int error, const std::string& what);

}  // namespace kvo::os
