#include "kvo/os/mapped_file.h"

#include "kvo/os/fork_guard.h"
#include "kvo/os/system_error.h"

#include <cerrno>
#include <sys/mman.h>

namespace kvo::os {

MappedFile::MappedFile(int fd, std::size_t bytes, Access access, const std::string& name)
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

MappedFile::~MappedFile() {
    // In a child the addresses may belong to something else by now.
    if (begin_ != nullptr && !InForkedChild()) {
        ::munmap(begin_, bytes_);
    }
}

}  // namespace kvo::os
