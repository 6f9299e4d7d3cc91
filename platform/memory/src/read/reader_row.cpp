#include "read/reader_row.h"

#include "kvo/os/crash_point.h"
#include "kvo/os/fork_guard.h"
#include "layout/tags.h"

namespace kvo {
namespace {

// In [first, last): a free row, else one whose owner is dead; `last` when there is none.
std::uint32_t ClaimAmong(Segment& segment, const ProcessLock& lock, const ProcessTag& own,
                         std::uint32_t first, std::uint32_t last) {
    for (std::uint32_t number = first; number < last; ++number) {
        if (TakeRowOver(segment.row(number), 0, own)) {
            return number;
        }
    }
    for (std::uint32_t number = first; number < last; ++number) {
        // relaxed: only an exchange from this very value follows.
        const std::uint64_t owner = segment.row(number).owner.load(std::memory_order_relaxed);
        if (owner != 0 && !lock.Lives(UnpackOwner(owner)) &&
            TakeRowOver(segment.row(number), owner, own)) {
            return number;
        }
    }
    return last;
}

void ClearPins(layout::ReaderRow& row) {
    for (auto& pin : row.pins) {
        // [unpin] Release: the scan that reads 0 is behind the holder's last look at the bytes.
        pin.store(0, std::memory_order_release);
    }
}

}  // namespace

bool TakeRowOver(layout::ReaderRow& row, std::uint64_t owner, const ProcessTag& own) {
    // [row] Sequentially consistent: pairs with the release in ReleaseRow, so that the former
    // owner's clearing of pins is behind us, and stands before our mark and pins in the one order
    // that the writer's scan takes part in.
    return row.owner.compare_exchange_strong(owner, PackOwner(own), std::memory_order_seq_cst,
                                             std::memory_order_relaxed);
}

void ReleaseRow(layout::ReaderRow& row) {
    ClearPins(row);
    KVO_CRASH_POINT("row cleared");
    // [row] Release: who claims the row next finds the pins 0. Killed before this line, the row
    // is a dead reader's without pins.
    row.owner.store(0, std::memory_order_release);
}

boost::intrusive_ptr<ReaderRow> ReaderRow::Claim(std::shared_ptr<Segment> segment,
                                                 std::shared_ptr<ProcessLock> lock) {
    const ProcessTag own = lock->Join();
    const std::uint32_t pinning_rows = segment->geometry().pinning_rows;
    std::uint32_t number = ClaimAmong(*segment, *lock, own, 0, pinning_rows);
    if (number == pinning_rows) {
        number = ClaimAmong(*segment, *lock, own, pinning_rows, layout::kRows);
    }
    if (number == layout::kRows) {
        return nullptr;
    }
    return {new ReaderRow(std::move(segment), std::move(lock), number)};
}

ReaderRow::ReaderRow(std::shared_ptr<Segment> segment, std::shared_ptr<ProcessLock> lock,
                     std::uint32_t number)
    : segment_(std::move(segment)),
      lock_(std::move(lock)),
      number_(number),
      row_(segment_->row(number)),
      usable_pins_(number < segment_->geometry().pinning_rows
                       ? static_cast<int>(segment_->geometry().pins_per_row)
                       : 0) {
    KVO_CRASH_POINT("row claimed");
    ClearPins(row_);  // those of a dead owner
    PublishLedger({}, 0);
    if (usable_pins_ > 0) {
        RaiseMark();
        KVO_CRASH_POINT("row marked");
    }
}

ReaderRow::~ReaderRow() {
    if (!os::InForkedChild()) {
        ReleaseRow(row_);
    }
}

void ReaderRow::RaiseMark() {
    auto& mark = segment_->control().mark;
    // relaxed: a guess, which the exchange below checks.
    std::uint32_t seen = mark.load(std::memory_order_relaxed);
    // [mark] Sequentially consistent, before the first pin: a scan that does not cover this row
    // began so early that our second look in Pin() sees its round. A maximum, because a plain
    // store could lower what another reader has just raised.
    while (seen < number_ + 1 &&
           !mark.compare_exchange_weak(seen, number_ + 1, std::memory_order_seq_cst,
                                       std::memory_order_relaxed)) {
    }
}

[[gnu::hot]] ReaderRow::PinOutcome ReaderRow::Pin(std::uint32_t slot, std::uint64_t version,
                                                  int& pin) {
    int free = 0;
    while (free < usable_pins_ && (used_ >> free & 1U) != 0) {
        ++free;
    }
    if (free >= usable_pins_) [[unlikely]] {
        return PinOutcome::kNoRoom;
    }
    const auto& word = segment_->slot(slot).word;
    const std::uint64_t valid = layout::PackWord(version, layout::SlotState::kValid);
    // [slot-ready] Acquire: header and payload of this version are visible.
    if (word.load(std::memory_order_acquire) != valid) [[unlikely]] {
        return PinOutcome::kMissed;
    }
    // [pin-or-closed] Both sequentially consistent, with the writer's store of the round and its
    // loads of the pins: either its scan reads our pin, or we see its round and with it the word
    // that it closed before. Killed in between, the pin stays until the row is reaped.
    row_.pins[free].store(slot + 1, std::memory_order_seq_cst);
    KVO_CRASH_POINT("pin stored");
    segment_->words().scan_round.load(std::memory_order_seq_cst);
    if (word.load(std::memory_order_acquire) != valid) [[unlikely]] {  // [slot-closed]
        row_.pins[free].store(0, std::memory_order_release);           // [unpin]
        return PinOutcome::kMissed;
    }
    KVO_CRASH_POINT("pin held");
    used_ |= 1U << free;
    pin = free;
    return PinOutcome::kPinned;
}

[[gnu::hot]] void ReaderRow::Unpin(int pin) {
    if (os::InForkedChild()) {
        return;
    }
    // [unpin] Release: the scan that reads 0 is behind everything read through this pin.
    row_.pins[pin].store(0, std::memory_order_release);
    KVO_CRASH_POINT("pin released");
    used_ &= ~(1U << pin);
}

// relaxed: shown to people, nothing is decided on it.
[[gnu::hot]] void ReaderRow::PublishLedger(const ReaderCounters& counters,
                                           std::uint64_t next_sequence) {
    constexpr auto relaxed = std::memory_order_relaxed;
    layout::LedgerEntry& ledger = segment_->ledger(number_);
    ledger.next_sequence.store(next_sequence, relaxed);
    ledger.read.store(counters.read, relaxed);
    ledger.lost.store(counters.lost, relaxed);
    ledger.replaced.store(counters.replaced, relaxed);
    ledger.stale.store(counters.stale, relaxed);
    ledger.checksum_failures.store(counters.checksum_failures, relaxed);
    ledger.copied.store(counters.copied, relaxed);
}

}  // namespace kvo
