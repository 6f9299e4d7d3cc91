#pragma once

#include "kvo/memory/counters.h"
#include "kvo/os/light_mutex.h"
#include "write/sample_writer.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace kvo {

class KvoLogger;

/// The writing half of an accessor: its hold on the segment that it writes, if it is a writer.
/// Threads: any. No lock of a reader is ever waited for.
class AccessorWriter {
public:
    AccessorWriter(std::string path, std::string stream, KvoLogger* logger)
        : path_(std::move(path)), stream_(std::move(stream)), logger_(logger) {}

    bool active() const;

    /// Takes the role of the segment at the path; its geometry must be this one.
    /// @return whether this is the writer now; if not, the reason is logged.
    [[nodiscard]] bool Start(int max_payload_bytes, int max_metadata_bytes);

    /// Goes over to the segment that is at the path now; without success the old one stays.
    void Reattach();

    /// Gives the role back.
    void Close();

    void set_compute_checksum(bool compute) {
        compute_checksum_.store(compute, std::memory_order_relaxed);  // relaxed: a setting
    }
    /// Throws std::logic_error, std::invalid_argument; see KvoMemoryAccessor::WriteData.
    void Write(SampleView& sample, std::int64_t payload_bytes, std::int64_t metadata_bytes);

    WriterCounters counters() const;

private:
    void Install(std::shared_ptr<Segment> segment);
    void LogOnce(SampleWriter::Outcome outcome);
    void Log(int level, const std::string& message) const;

    const std::string path_;
    const std::string stream_;
    KvoLogger* const logger_;
    std::atomic<bool> compute_checksum_{false};

    std::mutex open_mutex_;                 // one opens at a time; taken before mutex_
    mutable os::LightMutex mutex_;          // those below
    std::unique_ptr<SampleWriter> writer_;  // null: not a writer
    bool discard_logged_ = false;
    bool drop_logged_ = false;
};

}  // namespace kvo
