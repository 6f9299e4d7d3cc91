#pragma once

#include "kvo/memory/counters.h"
#include "kvo/memory/process_lock.h"
#include "layout/segment.h"

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>

#include <cstdint>
#include <memory>
#include <utility>

namespace kvo {

/// Takes an entry over from `owner` (as it was loaded), which must be 0 or dead; @return false:
/// another process was faster.
[[nodiscard]] bool TakeEntryOver(layout::ReaderEntry& entry, std::uint64_t owner,
                                 const ProcessTag& own);

/// Frees an own entry, pins first.
void ReleaseEntry(layout::ReaderEntry& entry);

/// One reader's entry in a segment's table, held until the last of its pins and its reader are
/// gone. Threads: one at a time.
/// Its holders are counted without atomics, since they are those of one reader.
class ReaderEntry : public boost::intrusive_ref_counter<ReaderEntry, boost::thread_unsafe_counter> {
public:
    static constexpr int kNoPin = -1;

    enum class PinOutcome {
        kPinned,
        kMissed,  // the slot does not hold that version (any more)
        kNoRoom,  // all pins are in use, or the entry is above those that may pin
    };

    /// Claims a free entry, or a dead reader's, those that may pin first; null: the table is full.
    /// Throws std::system_error when this process cannot join.
    [[nodiscard]] static boost::intrusive_ptr<ReaderEntry> Claim(std::shared_ptr<Segment> segment,
                                                                 std::shared_ptr<ProcessLock> lock);
    ReaderEntry(const ReaderEntry&) = delete;
    ReaderEntry& operator=(const ReaderEntry&) = delete;
    [[gnu::cold]] ~ReaderEntry();

    /// Keeps version's content in the slot from being overwritten until Unpin(pin).
    [[nodiscard]] PinOutcome Pin(std::uint32_t slot, std::uint64_t version, int& pin);
    void Unpin(int pin);

    void PublishStatistics(const ReaderCounters& counters, std::uint64_t next_sequence);

private:
    ReaderEntry(std::shared_ptr<Segment> segment, std::shared_ptr<ProcessLock> lock,
                std::uint32_t number);
    void RaiseUsedEntries();

    const std::shared_ptr<Segment> segment_;
    const std::shared_ptr<ProcessLock> lock_;  // joined for as long as the entry is owned
    const std::uint32_t number_;
    layout::ReaderEntry& entry_;
    const int usable_pins_;
    unsigned used_ = 0;  // one bit per pin
};

/// Holds one pin and, through it, entry, segment and mapping.
class PinHold {
public:
    PinHold() = default;
    PinHold(boost::intrusive_ptr<ReaderEntry> entry, int pin)
        : entry_(std::move(entry)), pin_(pin) {}
    PinHold(PinHold&& other) noexcept
        : entry_(std::move(other.entry_)), pin_(std::exchange(other.pin_, ReaderEntry::kNoPin)) {}
    PinHold& operator=(PinHold&& other) noexcept {
        std::swap(entry_, other.entry_);
        std::swap(pin_, other.pin_);
        return *this;
    }
    ~PinHold() {
        if (pin_ != ReaderEntry::kNoPin) {
            entry_->Unpin(pin_);
        }
    }

private:
    boost::intrusive_ptr<ReaderEntry> entry_;
    int pin_ = ReaderEntry::kNoPin;
};

}  // namespace kvo
