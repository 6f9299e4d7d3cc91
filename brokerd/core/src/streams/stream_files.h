#pragma once

#include "kvo/broker/identifiers.h"
#include "kvo/memory/process_lock.h"
#include "kvo/memory/stream_file.h"
#include "kvo/os/file_access.h"
#include "kvo/os/thread_bound.h"
#include "streams/verdict.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kvo::brokerd {

/// Makes and removes the stream files of one directory and accounts for their memory.
/// Threads: one.
class StreamFiles {
public:
    /// @param budget_bytes of all files; 0: half of the file system. @param access to new ones.
    StreamFiles(std::string directory, std::uint64_t budget_bytes, const SpareSlots& spare,
                ProcessLock& processes, const os::FileAccess& access = {});

    std::string PathOf(const StreamName& stream) const;

    /// Throws std::invalid_argument naming the value out of range.
    StreamGeometry Plan(std::int32_t sample_bytes, std::int32_t samples) const {
        return PlanGeometry(sample_bytes, samples, spare_);
    }
    /// Bytes that new files may take: what the budget leaves, at most what is free.
    std::uint64_t AvailableBytes() const;
    /// Whether a file of so many bytes can be made for the stream.
    Verdict CheckRoom(const StreamName& stream, std::uint64_t bytes) const;
    std::uint64_t used_bytes() const { return used_bytes_; }
    std::uint64_t budget_bytes() const { return budget_bytes_; }
    /// @param bytes 0: half of the file system. Files beyond a smaller one stay.
    void SetBudget(std::uint64_t bytes);
    /// The most that AddPublisher takes for samples of this size: sample_bytes times the largest
    /// number of samples that still fits, cut at INT32_MAX; 0 below 1 byte.
    std::int32_t LargestBuffer(std::int32_t sample_bytes) const;

    /// A fresh file at the stream's path; what was there, `before`, is retired and its memory
    /// counts until its readers have gone. Throws std::system_error when there is no room; then
    /// nothing has changed.
    std::unique_ptr<StreamFile> Create(const StreamName& stream, const StreamGeometry& geometry,
                                       const std::string& publisher_key, bool checksum,
                                       std::unique_ptr<StreamFile>& before);

    /// Unlinks the file; its memory counts until its readers have gone.
    void Remove(std::unique_ptr<StreamFile> file);

    /// At the start: the files of streams whose writer lives. All others, and what was left half
    /// made, are removed.
    std::vector<std::unique_ptr<StreamFile>> Sweep(
        const std::function<void(const std::string&)>& log);

    /// Forgets the removed files that no process uses any more.
    void ForgetUnused();

    bool InUse(const StreamFile& file) const { return file.InUse(processes_); }
    bool WriterLives(const StreamFile& file) const;
    int ReapDeadReaders(StreamFile& file) { return file.ReapDeadReaders(processes_); }

private:
    void Take(const StreamFile& file) { used_bytes_ += file.geometry().total_bytes(); }

    os::ThreadBound thread_;
    const std::string directory_;
    std::uint64_t budget_bytes_;
    const SpareSlots spare_;
    ProcessLock& processes_;
    const os::FileAccess access_;
    std::uint64_t used_bytes_ = 0;
    std::uint64_t last_epoch_ = 0;
    std::vector<std::unique_ptr<StreamFile>> removed_;  // with readers still in them
};

}  // namespace kvo::brokerd
