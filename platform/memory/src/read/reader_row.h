#pragma once

#include "kvo/memory/memory_accessor.h"
#include "kvo/memory/process_lock.h"
#include "layout/segment.h"

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>

#include <cstdint>
#include <memory>
#include <utility>

namespace kvo {

/// Makes a row of `owner` (as it was read) one's own; the owner must be nobody or dead.
bool TakeRowOver(layout::ReaderRow& row, std::uint64_t owner, const ProcessTag& own);

/// Gives an own row back, pins first.
void ReleaseRow(layout::ReaderRow& row);

/// One reader's row in a segment's table, held until the last of its pins and its reader are
/// gone. Threads: one at a time.
/// Its holders are counted without atomics, since they are those of one reader.
class ReaderRow : public boost::intrusive_ref_counter<ReaderRow, boost::thread_unsafe_counter> {
public:
    static constexpr int kNoPin = -1;

    enum class PinOutcome {
        kPinned,
        kMissed,  // the slot does not hold that version (any more)
        kNoRoom,  // all pins are in use, or the row is none of those that may pin
    };

    /// Claims a free row, or a dead reader's, those that may pin first; null: the table is full.
    /// Throws std::system_error when this process can not join.
    static boost::intrusive_ptr<ReaderRow> Claim(std::shared_ptr<Segment> segment,
                                                 std::shared_ptr<ProcessLock> lock);
    ReaderRow(const ReaderRow&) = delete;
    ReaderRow& operator=(const ReaderRow&) = delete;
    [[gnu::cold]] ~ReaderRow();

    /// Keeps version's content in the slot from being overwritten until Unpin(pin).
    PinOutcome Pin(std::uint32_t slot, std::uint64_t version, int& pin);
    void Unpin(int pin);

    void PublishLedger(const ReaderCounters& counters, std::uint64_t next_sequence);

private:
    ReaderRow(std::shared_ptr<Segment> segment, std::shared_ptr<ProcessLock> lock,
              std::uint32_t number);
    void RaiseMark();

    const std::shared_ptr<Segment> segment_;
    const std::shared_ptr<ProcessLock> lock_;  // the row is ours for as long as we are joined
    const std::uint32_t number_;
    layout::ReaderRow& row_;
    const int usable_pins_;
    unsigned used_ = 0;  // one bit per pin
};

/// Holds one pin and, through it, row, segment and mapping.
class PinHold {
public:
    PinHold() = default;
    PinHold(boost::intrusive_ptr<ReaderRow> row, int pin) : row_(std::move(row)), pin_(pin) {}
    PinHold(PinHold&& other) noexcept
        : row_(std::move(other.row_)), pin_(std::exchange(other.pin_, ReaderRow::kNoPin)) {}
    PinHold& operator=(PinHold&& other) noexcept {
        std::swap(row_, other.row_);
        std::swap(pin_, other.pin_);
        return *this;
    }
    ~PinHold() {
        if (pin_ != ReaderRow::kNoPin) {
            row_->Unpin(pin_);
        }
    }

private:
    boost::intrusive_ptr<ReaderRow> row_;
    int pin_ = ReaderRow::kNoPin;
};

}  // namespace kvo
