#pragma once

#include "kvo/memory/counters.h"
#include "kvo/memory/data_available.h"
#include "kvo/os/light_mutex.h"
#include "read/sample_reader.h"
#include "read/sample_store.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kvo {

class KvoLogger;

/// The reading half of an accessor: segment, place in the stream, samples handed out, signal.
/// Held by shared_ptr, so that a slot may destroy the accessor that raised the signal.
/// Threads: any. The signal is raised and the logger called with no lock held.
class AccessorReader {
public:
    struct Settings {
        std::string path;
        std::string stream;
        KvoLogger* logger = nullptr;
        std::uint64_t max_age_ns = 0;  // 0: any age
        int accessor_argument = 0;
    };
    explicit AccessorReader(Settings settings);

    /// As OpenSharedMemory; a failure is logged. @return whether the file at the path is mapped.
    [[nodiscard]] bool Open();
    void Close();
    void Reset();
    void StartReading();
    void StopReading();
    void Reattach();
    void NewData();
    void set_publisher_gone(bool gone);

    struct Packet {
        DataSample* sample = nullptr;  // null: none
        std::uint64_t unread = 0;      // samples left
    };
    /// @param take  false: only counts.
    /// @param count false: `unread` may be too low.
    [[nodiscard]] Packet TakeNext(bool take, bool count);

    ReaderCounters counters() const;
    DataAvailable& signal() { return signal_; }

    /// No signal is raised and nothing is logged from now on.
    void End();

private:
    // A place belongs to an epoch and outlives the mapping: the same segment may be reopened.
    struct Place {
        bool set = false;
        std::uint64_t epoch = 0;
        std::uint64_t next = 1;       // sequence number
        std::uint64_t signalled = 0;  // up to this one
        // At the moment when its segment was left.
        std::uint64_t left_unread = 0;
        std::uint64_t left_lost = 0;
    };
    enum class OpenOutcome { kOpened, kUnchanged, kFailed };
    enum class Wanted { kAny, kNewerEpoch };

    [[nodiscard]] OpenOutcome OpenPath(Wanted wanted, std::string& fault);
    [[nodiscard]] bool OpenSuccessor();
    void SignalUnread();
    [[nodiscard]] bool ClaimSignal(std::uint64_t& last);
    void Log(int level, const std::string& message);
    [[gnu::cold]] void LogDamaged();

    // With mutex_ held:
    bool HasPlace() const { return current_ && place_.set && place_.epoch == current_epoch(); }
    std::uint64_t current_epoch() const { return current_->segment().epoch(); }
    std::uint64_t Unread() const;
    void LeaveSegment();
    void BeginAnewInNewEpoch();

    const Settings settings_;
    DataAvailable signal_;

    std::mutex open_mutex_;                  // one opens at a time; taken before mutex_
    mutable os::LightMutex mutex_;           // all below
    std::unique_ptr<SampleReader> current_;  // null: closed
    std::uint64_t last_epoch_ = 0;           // of the segment that was mapped last
    Place place_;
    bool started_ = false;  // reading has been started once
    bool reading_ = false;  // signals are raised
    bool publisher_gone_ = false;
    bool ended_ = false;
    ReaderCounters counters_;
    SampleStore store_;
    std::vector<std::uint64_t> damaged_;  // skipped for their checksum and not logged yet
};

}  // namespace kvo
