#pragma once

#include "kvo/os_export.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kvo::os {

/// Which users beside the owner may use shared files.
struct FileAccess {
    /// 0600: the owner alone. 0640: the group reads samples. 0660: the group writes them too. A
    /// reader writes the files that readers share: control files and the directory's lock file.
    std::uint32_t mode = 0600;
    std::optional<std::uint32_t> group;  // none: the one that new files get by themselves

    /// Of files that every reader of samples has to write.
    std::uint32_t shared_mode() const { return mode == 0600 ? 0600 : 0660; }
    std::uint32_t directory_mode() const { return mode == 0600 ? 0700 : 0750; }
};

/// Gives an open file its mode, whatever the umask of the process, and its group; throws
/// std::system_error naming it.
KVO_OS_EXPORT void SetPermissions(int fd, std::uint32_t mode, std::optional<std::uint32_t> group,
                                  const std::string& name);

/// Throws std::system_error for a file that open() has just refused; where permissions are the
/// reason, with the user and group that the file is for.
[[noreturn]] KVO_OS_EXPORT void ThrowOpening(const std::string& path);

}  // namespace kvo::os
