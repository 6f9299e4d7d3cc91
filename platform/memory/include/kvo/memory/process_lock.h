#pragma once

#include "kvo/memory_export.h"
#include "kvo/os/file_access.h"
#include "kvo/os/process_identity.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kvo {

inline constexpr std::uint16_t kMaxProcesses = 4095;  // that use one directory at a time

/// Names a process for as long as it lives: the number of its lock byte and a random nonce.
struct ProcessTag {
    std::uint16_t number = 0;  // 1 to kMaxProcesses; 0: none
    std::uint64_t nonce = 0;   // 48 bits, not 0
    bool operator==(const ProcessTag& other) const {
        return number == other.number && nonce == other.nonce;
    }
    bool operator!=(const ProcessTag& other) const { return !(*this == other); }
};

/// A process as the lock file of the directory knows it.
struct ObservedProcess {
    ProcessTag tag;  // number 0: none
    bool lives = false;
    std::uint32_t process_id = 0;  // in its own namespace; 0: not known
};

/// The processes that use the stream files of one directory, by the kernel's own knowledge of
/// who lives: each holds a POSIX record lock on one byte of the directory's lock file and has
/// written its identity beside it. A process holds one byte per directory, shared by all objects
/// of the directory that have joined, and gives it back when the last of them goes.
/// Threads: any.
class KVO_MEMORY_EXPORT ProcessLock {
public:
    /// The process's lock for the directory; opens (creates) the lock file. Throws
    /// std::system_error naming the file.
    static std::shared_ptr<ProcessLock> ForDirectory(const std::string& directory);

    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;
    ~ProcessLock();

    /// Takes a byte and writes the record, if this process has not done so; before anything in
    /// shared memory is claimed. Throws std::system_error.
    ProcessTag Join();

    /// Whether the process behind the tag lives. Answered from memory for this process.
    bool Lives(const ProcessTag& tag) const;

    /// The processes that have joined and their identities, by the records alone: some may have
    /// died since.
    std::vector<std::pair<os::ProcessIdentity, ProcessTag>> Joined() const;

    /// The living process with this number whose nonce ends in these bits.
    std::optional<ProcessTag> Resolve(std::uint16_t number, std::uint32_t nonce_low) const;

    /// True when a process other than this one, or another user of Join in this one, holds a byte.
    bool HasOthers() const;

    /// Gives the lock file the mode and group of the access. For the owner of the directory.
    /// Throws std::system_error naming the file.
    void SetPermissions(const os::FileAccess& access);

    /// Removes the lock file when HasOthers() is false; @return whether it did. For the owner of
    /// the directory.
    bool RemoveIfUnused();

private:
    class Impl;
    explicit ProcessLock(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace kvo
