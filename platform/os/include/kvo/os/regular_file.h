#pragma once

#include "kvo/os/file_descriptor.h"
#include "kvo/os/mapped_file.h"
#include "kvo/os_export.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kvo::os {

/// The directory part of a path.
KVO_OS_EXPORT std::string DirectoryOf(const std::string& path);

/// Opens an existing regular file, never through a symbolic link; throws std::system_error.
/// @param bytes its size.
KVO_OS_EXPORT FileDescriptor OpenRegularFile(const std::string& path, MappedFile::Access access,
                                             std::uint64_t& bytes);

/// Maps the first bytes of an existing regular file that belongs to a trusted user (trust.h).
/// Throws std::system_error, or std::runtime_error when the file is shorter or belongs to another.
[[nodiscard]] KVO_OS_EXPORT MappedFile MapTrustedFile(const std::string& path, std::size_t bytes,
                                                      MappedFile::Access access);

/// Whether the path names the open file, itself and not through a symbolic link.
KVO_OS_EXPORT bool IsFileAt(const std::string& path, int fd);

/// Memory for the first bytes of a file, now instead of at the first touch, where a full file
/// system would end the process. Throws std::system_error naming bytes and file.
KVO_OS_EXPORT void ReserveBytes(int fd, std::uint64_t bytes, const std::string& name);

}  // namespace kvo::os
