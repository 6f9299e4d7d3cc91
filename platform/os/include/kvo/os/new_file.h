#pragma once

#include "kvo/os/mapped_file.h"
#include "kvo/os_export.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kvo::os {

/// A file under construction: all zero, its memory reserved, mapped for writing, and removed with
/// the object unless it is kept. Threads: one.
class KVO_OS_EXPORT NewFile {
public:
    /// Throws std::system_error naming the file, also when there is one already, and leaves
    /// nothing behind.
    NewFile(std::string path, std::uint64_t bytes, std::uint32_t mode,
            std::optional<std::uint32_t> group);
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile();

    const std::string& path() const { return path_; }
    unsigned char* begin() const { return mapping_.at(0); }
    /// The file stays when the object goes, under the name that it has then.
    void Keep() { kept_ = true; }
    /// The memory, for the owner of a file in place.
    [[nodiscard]] MappedFile TakeMapping();

private:
    const std::string path_;
    MappedFile mapping_;
    bool kept_ = false;
};

}  // namespace kvo::os
