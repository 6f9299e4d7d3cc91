#include "mapping.h"

#include "fork_guard.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kvo {

void ThrowErrno(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

namespace {

std::string NameOfGroup(gid_t id) {
    std::array<char, 4096> buffer;
    group entry{};
    group* found = nullptr;
    ::getgrgid_r(id, &entry, buffer.data(), buffer.size(), &found);
    return found == nullptr ? std::to_string(id) : found->gr_name;
}

}  // namespace

void ThrowOpening(const std::string& path) {
    const int error = errno;
    std::string whom;
    if (error == EACCES) {
        // A directory that may not be searched hides its files, and is for the same group.
        struct stat status {};
        const std::string directory = DirectoryOf(path);
        const bool seen = ::stat(path.c_str(), &status) == 0;
        if (seen || ::stat(directory.c_str(), &status) == 0) {
            whom = (seen ? "" : " in " + directory) + ", which is for user " +
                   std::to_string(status.st_uid) +
                   ((status.st_mode & S_IRWXG) == 0
                        ? " alone"
                        : " and group " + NameOfGroup(status.st_gid) +
                              (seen && (status.st_mode & S_IWGRP) == 0 ? " (to read)" : ""));
        }
    }
    ThrowErrno(error, "opening " + path + whom);
}

void SetAccess(int fd, std::uint32_t mode, std::optional<std::uint32_t> group,
               const std::string& name) {
    if (group && ::fchown(fd, static_cast<uid_t>(-1), *group) != 0) {
        ThrowErrno(errno, "giving " + name + " to group " + NameOfGroup(*group));
    }
    if (::fchmod(fd, mode) != 0) {
        ThrowErrno(errno, "setting the mode of " + name);
    }
}

std::string DirectoryOf(const std::string& path) {
    const std::string parent = std::filesystem::path(path).parent_path().string();
    return parent.empty() ? "." : parent;
}

FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

Mapping::Mapping(int fd, std::size_t bytes, Access access, const std::string& name)
    : bytes_(bytes) {
    WatchForks();
    const int protection = access == Access::kWrite ? PROT_READ | PROT_WRITE : PROT_READ;
    void* begin = ::mmap(nullptr, bytes, protection, MAP_SHARED, fd, 0);
    if (begin == MAP_FAILED) {
        ThrowErrno(errno, "mapping " + name);
    }
    begin_ = static_cast<unsigned char*>(begin);
    // A child that touched our words would write in our name.
    if (::madvise(begin, bytes, MADV_DONTFORK) != 0) {
        const int error = errno;
        ::munmap(begin, bytes);
        ThrowErrno(error, "keeping " + name + " out of child processes");
    }
}

Mapping::~Mapping() {
    // In a child the addresses may belong to something else by now.
    if (begin_ != nullptr && !InForkedChild()) {
        ::munmap(begin_, bytes_);
    }
}

FileDescriptor OpenRegularFile(const std::string& path, Mapping::Access access,
                               std::uint64_t& bytes) {
    // Not blocking: what lies at the path may be a pipe.
    const int flags = (access == Mapping::Access::kWrite ? O_RDWR : O_RDONLY) | O_CLOEXEC |
                      O_NOFOLLOW | O_NONBLOCK;
    FileDescriptor file(::open(path.c_str(), flags));
    if (file.get() < 0) {
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

void ReserveBytes(int fd, std::uint64_t bytes, const std::string& name) {
    int error = EINTR;
    while (error == EINTR) {
        error = ::posix_fallocate(fd, 0, static_cast<off_t>(bytes));
    }
    if (error != 0) {
        ThrowErrno(error, "reserving " + std::to_string(bytes) + " bytes for " + name);
    }
}

}  // namespace kvo
