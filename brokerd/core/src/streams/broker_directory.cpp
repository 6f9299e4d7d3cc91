#include "streams/broker_directory.h"

#include "kvo/os/file_access.h"
#include "kvo/os/lock_file.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kvo::brokerd {
namespace {

[[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void SetPermissions(const std::string& path, const os::FileAccess& access) {
    if (access.group && ::chown(path.c_str(), static_cast<uid_t>(-1), *access.group) != 0) {
        Fail("cannot give " + path + " to group " + std::to_string(*access.group));
    }
    if (access.mode != os::FileAccess{}.mode &&
        ::chmod(path.c_str(), access.directory_mode()) != 0) {
        Fail("cannot set the mode of " + path);
    }
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
        Fail("cannot inspect " + path);
    }
    if (!S_ISDIR(status.st_mode) || status.st_uid != ::geteuid()) {
        throw std::runtime_error(path + " is not a directory of this user");
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        throw std::runtime_error(path +
                                 " can be written by all users: name a directory of its own");
    }
}

}  // namespace

BrokerDirectory::BrokerDirectory(std::string path, const os::FileAccess& access)
    : path_(std::move(path)) {
    MakeDirectory(path_);
    Lock();
    SetPermissions(path_, access);
    processes_ = ProcessLock::ForDirectory(path_);
    processes_->SetPermissions(access);
    processes_->Join();
}

void BrokerDirectory::Lock() {
    try {
        lock_ = std::make_unique<os::LockFile>(path_ + "/broker.lock", "", 0600);
    } catch (const os::LockHeld& held) {
        throw std::runtime_error("another broker, process " + held.process() +
                                 ", uses the directory " + path_);
    }
}

BrokerDirectory::~BrokerDirectory() {
    processes_->RemoveIfUnused();
    lock_.reset();
    ::rmdir(path_.c_str());  // refused while a stream file is left
}

}  // namespace kvo::brokerd
