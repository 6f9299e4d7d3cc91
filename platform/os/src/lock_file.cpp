#include "kvo/os/lock_file.h"

#include "kvo/os/regular_file.h"
#include "kvo/os/system_error.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace kvo::os {
namespace {

// A process that tidies up after a dead holder has the lock for a moment.
constexpr int kAttempts = 100;
constexpr std::chrono::milliseconds kPause{1};

// Of an open file, not of a process: it is seen by others of the same process, and the closing of
// another descriptor of the file leaves it alone.
struct flock WholeFile() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

struct Holder {
    std::string process = "unknown";
    std::string note;
};

Holder HolderOf(const std::string& path) {
    Holder holder;
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    std::array<char, 1024> bytes{};
    const ssize_t got = ::pread(file.get(), bytes.data(), bytes.size(), 0);
    if (got > 0) {
        const std::string text(bytes.data(), static_cast<std::size_t>(got));
        const std::size_t line = text.find('\n');
        holder.process = text.substr(0, line);
        holder.note = line == std::string::npos ? "" : text.substr(line + 1);
    }
    return holder;
}

bool IsDead(const std::string& process) {
    const long id = std::strtol(process.c_str(), nullptr, 10);
    return id > 0 && ::kill(static_cast<pid_t>(id), 0) != 0 && errno == ESRCH;
}

}  // namespace

LockFile::LockFile(std::string path, const std::string& note, mode_t mode)
    : path_(std::move(path)), owner_(::getpid()) {
    for (int attempt = 0; !TryLock(mode); ++attempt) {
        Holder holder = HolderOf(path_);
        if (attempt == kAttempts || !IsDead(holder.process)) {
            throw LockHeld(path_, std::move(holder.process), std::move(holder.note));
        }
        std::this_thread::sleep_for(kPause);
    }
    const std::string content = std::to_string(owner_) + (note.empty() ? "" : "\n" + note);
    if (::fchmod(file_.get(), mode) != 0 || ::ftruncate(file_.get(), 0) != 0 ||
        ::pwrite(file_.get(), content.data(), content.size(), 0) !=
            static_cast<ssize_t>(content.size())) {
        ThrowErrno(errno, "cannot write " + path_);
    }
}

bool LockFile::TryLock(mode_t mode) {
    for (;;) {
        FileDescriptor file(
            ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, mode));
        if (!file.valid()) {
            ThrowErrno(errno, "cannot open " + path_);
        }
        struct flock lock = WholeFile();
        if (::fcntl(file.get(), F_OFD_SETLK, &lock) != 0) {
            return false;
        }
        if (IsFileAt(path_, file.get())) {
            file_ = std::move(file);
            return true;
        }
        // Its holder has just removed it.
    }
}

LockFile::~LockFile() {
    if (::getpid() == owner_) {
        ::unlink(path_.c_str());
        // A child of fork() may have the descriptor too, so closing ours would not be enough.
        struct flock lock = WholeFile();
        lock.l_type = F_UNLCK;
        ::fcntl(file_.get(), F_OFD_SETLK, &lock);
    }
}

bool LockFile::IsHeld(const std::string& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct flock lock = WholeFile();
    return ::fcntl(file.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace kvo::os
