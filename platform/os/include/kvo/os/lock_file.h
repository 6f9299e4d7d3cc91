#pragma once

#include "kvo/os/file_descriptor.h"
#include "kvo/os_export.h"

#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <utility>

namespace kvo::os {

/// A file is locked by another owner.
class KVO_OS_EXPORT LockHeld : public std::runtime_error {
public:
    LockHeld(const std::string& path, std::string process, std::string note)
        : std::runtime_error(path + " is locked by process " + process),
          process_(std::move(process)),
          note_(std::move(note)) {}
    /// The holder's process id as text, or "unknown".
    const std::string& process() const { return process_; }
    /// What the holder has written beside it.
    const std::string& note() const { return note_; }

private:
    std::string process_;
    std::string note_;
};

/// A file that one owner at a time holds locked, by the kernel's knowledge: the lock ends with its
/// process. A child of fork() gives up nothing. Threads: one at a time.
class KVO_OS_EXPORT LockFile {
public:
    /// Makes the file where it is missing and locks it. Throws LockHeld, or std::system_error
    /// naming the file.
    /// @param note for a process that finds the lock held. @param mode of the file.
    LockFile(std::string path, const std::string& note, mode_t mode);
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;
    /// Removes the file and gives the lock up.
    ~LockFile();

    /// Whether any process, this one included, holds it; takes nothing.
    [[nodiscard]] static bool IsHeld(const std::string& path);

private:
    bool TryLock(mode_t mode);

    const std::string path_;
    const pid_t owner_;
    FileDescriptor file_;
};

}  // namespace kvo::os
