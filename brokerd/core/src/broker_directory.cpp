#include "broker_directory.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kvo::brokerd {
namespace {

[[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void MakeDirectory(const std::string& path) {
    if (::mkdir(path.c_str(), 0700) == 0) {
        return;
    }
    if (errno != EEXIST) {
        Fail("cannot make the directory " + path);
    }
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        Fail("cannot look at " + path);
    }
    if (!S_ISDIR(status.st_mode) || status.st_uid != ::geteuid()) {
        throw std::runtime_error(path + " is not a directory of this user");
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        throw std::runtime_error(path +
                                 " can be written by everybody: name a directory of its own");
    }
}

bool NamesTheSameFile(const std::string& path, int file) {
    struct stat there {};
    struct stat ours {};
    return ::lstat(path.c_str(), &there) == 0 && ::fstat(file, &ours) == 0 &&
           there.st_dev == ours.st_dev && there.st_ino == ours.st_ino;
}

std::string Content(int file) {
    std::array<char, 32> text{};
    const ssize_t bytes = ::pread(file, text.data(), text.size(), 0);
    return bytes > 0 ? std::string(text.data(), static_cast<std::size_t>(bytes)) : "unknown";
}

}  // namespace

BrokerDirectory::BrokerDirectory(std::string path) : path_(std::move(path)) {
    MakeDirectory(path_);
    Lock();
    try {
        processes_ = ProcessLock::ForDirectory(path_);
        processes_->Join();
    } catch (...) {
        ::close(lock_file_);
        throw;
    }
}

void BrokerDirectory::Lock() {
    const std::string lock_path = path_ + "/broker.lock";
    for (;;) {
        lock_file_ = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (lock_file_ < 0) {
            Fail("cannot open " + lock_path);
        }
        if (::flock(lock_file_, LOCK_EX | LOCK_NB) != 0) {
            const std::string holder = Content(lock_file_);
            ::close(lock_file_);
            throw std::runtime_error("another broker, process " + holder + ", uses the directory " +
                                     path_);
        }
        if (NamesTheSameFile(lock_path, lock_file_)) {
            break;
        }
        ::close(lock_file_);  // its holder has just removed it
    }
    const std::string pid = std::to_string(::getpid());
    if (::ftruncate(lock_file_, 0) != 0 ||
        ::pwrite(lock_file_, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        const int error = errno;
        ::close(lock_file_);
        errno = error;
        Fail("cannot write " + lock_path);
    }
}

BrokerDirectory::~BrokerDirectory() {
    processes_->RemoveIfUnused();
    ::unlink((path_ + "/broker.lock").c_str());
    ::rmdir(path_.c_str());  // refused while a stream file is left
    ::close(lock_file_);
}

}  // namespace kvo::brokerd
