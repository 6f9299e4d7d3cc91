#include "kvo/os/new_file.h"

#include "kvo/os/file_access.h"
#include "kvo/os/regular_file.h"
#include "kvo/os/system_error.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace kvo::os {

NewFile::NewFile(std::string path, std::uint64_t bytes, std::uint32_t mode,
                 std::optional<std::uint32_t> group)
    : path_(std::move(path)) {
    const FileDescriptor file(
        ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.valid()) {
        ThrowErrno(errno, "creating " + path_);
    }
    try {
        SetPermissions(file.get(), mode, group, path_);
        ReserveBytes(file.get(), bytes, path_);
        mapping_ = MappedFile(file.get(), bytes, MappedFile::Access::kWrite, path_);
    } catch (...) {
        ::unlink(path_.c_str());
        throw;
    }
}

NewFile::~NewFile() {
    if (!kept_) {
        ::unlink(path_.c_str());
    }
}

MappedFile NewFile::TakeMapping() {
    return std::move(mapping_);
}

}  // namespace kvo::os
