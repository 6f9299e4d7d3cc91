#include "mapping.h"

#include "fork_guard.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kvo {

void ThrowErrno(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
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
        ThrowErrno(errno, "opening " + path);
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
