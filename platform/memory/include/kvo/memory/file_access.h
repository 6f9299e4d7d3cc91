#pragma once

#include <cstdint>
#include <optional>

namespace kvo {

/// Who beside the owner may use the stream files of a directory.
struct FileAccess {
    /// 0600: nobody. 0640: the group reads samples. 0660: the group writes them too. Whoever reads
    /// has to write what readers share: the control files and the directory's lock file.
    std::uint32_t mode = 0600;
    std::optional<std::uint32_t> group;  // none: the one that new files get by themselves

    /// Of files that whoever reads samples has to write.
    std::uint32_t shared_mode() const { return mode == 0600 ? 0600 : 0660; }
    std::uint32_t directory_mode() const { return mode == 0600 ? 0700 : 0750; }
};

}  // namespace kvo
