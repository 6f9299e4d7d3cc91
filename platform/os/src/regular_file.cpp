#include "kvo/os/regular_file.h"

#include "kvo/os/file_access.h"
#include "kvo/os/system_error.h"
#include "kvo/os/trust.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>

namespace kvo::os {

std::string DirectoryOf(const std::string& path) {
    const std::string parent = std::filesystem::path(path).parent_path().string();
    return parent.empty() ? "." : parent;
}

FileDescriptor OpenRegularFile(const std::string& path, MappedFile::Access access,
                               std::uint64_t& bytes) {
    // Not blocking: what lies at the path may be a pipe.
    const int flags = (access == MappedFile::Access::kWrite ? O_RDWR : O_RDONLY) | O_CLOEXEC |
                      O_NOFOLLOW | O_NONBLOCK;
    FileDescriptor file(::open(path.c_str(), flags));
    if (!file.valid()) {
        ThrowOpening(path);
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        ThrowErrno(errno, "looking at " + path);
    }
    if (!S_ISREG(status.st_mode)) {
        ThrowErrno(EINVAL, path + " is no regular file");
    }
    bytes = static_cast<std::uint64_t>(status.st_size);
    return file;
}

MappedFile MapTrustedFile(const std::string& path, std::size_t bytes, MappedFile::Access access) {
    std::uint64_t size = 0;
    const FileDescriptor file = OpenRegularFile(path, access, size);
    if (size < bytes) {
        throw std::runtime_error(path + " has " + std::to_string(size) + " bytes, not " +
                                 std::to_string(bytes));
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        ThrowErrno(errno, "looking at " + path);
    }
    if (!IsTrustedUser(status.st_uid)) {
        throw std::runtime_error(path + " belongs to user " + std::to_string(status.st_uid));
    }
    return MappedFile(file.get(), bytes, access, path);
}

bool IsFileAt(const std::string& path, int fd) {
    struct stat there {};
    struct stat ours {};
    return ::lstat(path.c_str(), &there) == 0 && ::fstat(fd, &ours) == 0 &&
           there.st_dev == ours.st_dev && there.st_ino == ours.st_ino;
}

void ReserveBytes(int fd, std::uint64_t bytes, const std::string& name) {
    int error = EINTR;
    while (error == EINTR) {
        error = ::posix_fallocate(fd, 0, static_cast<off_t>(bytes));
    }
    if (error != 0) {
        ThrowErrno(error, "reserving " + std::to_string(bytes) + " bytes for " + name);
    }
}

}  // namespace kvo::os
