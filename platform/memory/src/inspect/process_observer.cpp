#include "inspect/process_observer.h"

#include "lifetime/process_record.h"

#include <fcntl.h>
#include <map>
#include <mutex>
#include <unistd.h>

namespace kvo {
namespace {

// Kept open: closing one descriptor of a file drops all locks that the process has on it, and an
// accessor of this process may have some.
int LockFileOf(const std::string& directory) {
    static std::mutex mutex;
    static auto& files = *new std::map<std::string, int>;
    const std::lock_guard lock(mutex);
    const auto [entry, added] = files.try_emplace(directory, -1);
    if (entry->second < 0) {
        const std::string path = directory + "/" + kProcessLockName;
        entry->second = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    }
    return entry->second;
}

}  // namespace

ProcessObserver::ProcessObserver(const std::string& directory) : file_(LockFileOf(directory)) {}

ObservedProcess ProcessObserver::Probe(std::uint16_t number, std::uint64_t nonce,
                                       unsigned nonce_bits) const {
    ObservedProcess process;
    process.tag = {number, nonce};
    if (file_ < 0 || number == 0 || number > kMaxProcesses) {
        return process;
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = number;
    lock.l_len = 1;
    const bool held = ::fcntl(file_, F_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
    ProcessRecord record{};
    const std::uint64_t mask = (std::uint64_t{1} << nonce_bits) - 1;
    if (::pread(file_, &record, sizeof record, RecordOffset(number)) ==
            static_cast<ssize_t>(sizeof record) &&
        record.nonce != 0 && (record.nonce & mask) == (nonce & mask)) {
        process.lives = held;
        process.process_id = record.process_id;
    }
    return process;
}

}  // namespace kvo
