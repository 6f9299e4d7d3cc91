#include "local/shared_file.h"

#include "gorm/cor/errors.h"
#include "local/runtime_directory.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace gorm::cor {
namespace {

[[noreturn]] void Throw(int error, const std::string& path) {
    throw std::system_error(error, std::generic_category(), path);
}

class Descriptor {
public:
    explicit Descriptor(int value) : value_(value) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { ::close(value_); }
    operator int() const { return value_; }

private:
    const int value_;
};

}  // namespace

SharedFile::SharedFile(int descriptor, std::size_t bytes, Mode mode, const std::string& path)
    : memory_(::mmap(nullptr, bytes, mode == Mode::kRead ? PROT_READ : PROT_READ | PROT_WRITE,
                     MAP_SHARED, descriptor, 0)),
      bytes_(bytes) {
    if (memory_ == MAP_FAILED) {
        Throw(errno, path);
    }
}

SharedFile::~SharedFile() {
    if (memory_ != nullptr) {
        ::munmap(memory_, bytes_);
    }
}

SharedFile SharedFile::Create(const std::string& path, std::size_t bytes,
                              const FileAccess& access) {
    const int created =
        ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (created < 0) {
        Throw(errno, path);
    }
    const Descriptor file(created);
    try {
        if (const int error = ::posix_fallocate(file, 0, static_cast<off_t>(bytes)); error != 0) {
            Throw(error, path);
        }
        if ((access.group != static_cast<gid_t>(-1) &&
             ::fchown(file, static_cast<uid_t>(-1), access.group) != 0) ||
            ::fchmod(file, access.mode) != 0) {
            Throw(errno, path);
        }
        return SharedFile(file, bytes, Mode::kWrite, path);
    } catch (...) {
        ::unlink(path.c_str());
        throw;
    }
}

SharedFile SharedFile::Open(const std::string& path, std::size_t bytes, Mode mode) {
    const int opened = ::open(path.c_str(), (mode == Mode::kRead ? O_RDONLY : O_RDWR) | O_NOFOLLOW |
                                                O_NONBLOCK | O_CLOEXEC);
    if (opened < 0) {
        Throw(errno, path);
    }
    const Descriptor file(opened);
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        Throw(errno, path);
    }
    if (!S_ISREG(status.st_mode) || static_cast<std::size_t>(status.st_size) < bytes) {
        throw Error(path + " is no file of " + std::to_string(bytes) + " bytes");
    }
    if (!IsTrustedUser(status.st_uid)) {
        throw Error(path + " belongs to user " + std::to_string(status.st_uid));
    }
    return SharedFile(file, bytes, mode, path);
}

}  // namespace gorm::cor
