#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace kvo {

[[noreturn]] void ThrowErrno(int error, const std::string& what);

/// Throws std::system_error for a file that open() has just refused, with whom it is for where
/// that is the reason.
[[noreturn]] void ThrowOpening(const std::string& path);

/// Gives an open file its mode, whatever the mask of the process, and its group; throws
/// std::system_error naming it.
void SetAccess(int fd, std::uint32_t mode, std::optional<std::uint32_t> group,
               const std::string& name);

/// The directory part of a path.
std::string DirectoryOf(const std::string& path);

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~FileDescriptor();
    int get() const { return fd_; }

private:
    int fd_ = -1;
};

/// A file's bytes in memory, shared with other processes and absent in a forked child.
class Mapping {
public:
    enum class Access { kRead, kWrite };

    Mapping() = default;
    /// Maps the whole of an open file; throws std::system_error naming it.
    Mapping(int fd, std::size_t bytes, Access access, const std::string& name);
    Mapping(Mapping&& other) noexcept
        : begin_(std::exchange(other.begin_, nullptr)), bytes_(other.bytes_) {}
    Mapping& operator=(Mapping&& other) noexcept {
        std::swap(begin_, other.begin_);
        std::swap(bytes_, other.bytes_);
        return *this;
    }
    ~Mapping();

    unsigned char* at(std::uint64_t offset) const { return begin_ + offset; }

private:
    unsigned char* begin_ = nullptr;
    std::size_t bytes_ = 0;
};

/// Memory for the first bytes of a file, now instead of at the first touch, where a full file
/// system would end the process. Throws std::system_error naming bytes and file.
void ReserveBytes(int fd, std::uint64_t bytes, const std::string& name);

/// An existing regular file, never through a symbolic link; throws std::system_error.
FileDescriptor OpenRegularFile(const std::string& path, Mapping::Access access,
                               std::uint64_t& bytes);

}  // namespace kvo
