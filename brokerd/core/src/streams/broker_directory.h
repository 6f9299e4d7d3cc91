#pragma once

#include "kvo/memory/process_lock.h"
#include "kvo/os/file_access.h"
#include "kvo/os/lock_file.h"

#include <memory>
#include <string>

namespace kvo::brokerd {

/// The directory of a broker's stream files, held by at most one broker at a time.
/// Threads: one.
class BrokerDirectory {
public:
    /// Makes the directory where it is missing and takes it; throws std::runtime_error when
    /// another broker has it (naming its process) or it belongs to another user.
    /// @param access to it and its files; one that was there keeps its mode when the access is for
    /// the owner alone.
    explicit BrokerDirectory(std::string path, const os::FileAccess& access = {});
    BrokerDirectory(const BrokerDirectory&) = delete;
    BrokerDirectory& operator=(const BrokerDirectory&) = delete;
    /// Gives it up, and removes it when nothing is left in it and no process uses it.
    ~BrokerDirectory();

    const std::string& path() const { return path_; }
    ProcessLock& processes() { return *processes_; }

private:
    void Lock();

    const std::string path_;
    std::unique_ptr<os::LockFile> lock_;
    std::shared_ptr<ProcessLock> processes_;
};

}  // namespace kvo::brokerd
