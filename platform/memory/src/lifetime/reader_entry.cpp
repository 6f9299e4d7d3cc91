#include "lifetime/reader_entry.h"

#include "kvo/os/crash_point.h"
#include "kvo/os/fork_guard.h"
#include "lifetime/tags.h"

#include <cassert>

namespace kvo {
namespace {

// In [first, last): a free entry, else one of a dead owner; `last` when there is none.
std::uint32_t ClaimAmong(Segment& segment, const ProcessLock& lock, const ProcessTag& own,
                         std::uint32_t first, std::uint32_t last) {
    for (std::uint32_t number = first; number < last; ++number) {
        if (TakeEntryOver(segment.reader_entry(number), 0, own)) {
            return number;
        }
    }
    for (std::uint32_t number = first; number < last; ++number) {
        // relaxed: only an exchange from this very value follows.
        const std::uint64_t owner =
            segment.reader_entry(number).owner.load(std::memory_order_relaxed);
        if (owner != 0 && !lock.Lives(UnpackOwner(owner)) &&
            TakeEntryOver(segment.reader_entry(number), owner, own)) {
            return number;
        }
    }
    return last;
}

void ClearPins(layout::ReaderEntry& entry) {
    for (auto& pin : entry.pins) {
        // [unpin] Release: a scan that loads 0 comes after the holder's last access to the bytes.
        pin.store(0, std::memory_order_release);
    }
}

}  // namespace

bool TakeEntryOver(layout::ReaderEntry& entry, std::uint64_t owner, const ProcessTag& own) {
    // [reader-entry] Sequentially consistent: pairs with the release in ReleaseEntry, so that the
    // former owner has cleared its pins before, and comes before `used_entries` and the pins of
    // this reader in the one order that the writer's scan takes part in.
    return entry.owner.compare_exchange_strong(owner, PackOwner(own), std::memory_order_seq_cst,
                                               std::memory_order_relaxed);
}

void ReleaseEntry(layout::ReaderEntry& entry) {
    ClearPins(entry);
    KVO_CRASH_POINT("reader entry cleared");
    // [reader-entry] Release: the next owner finds the pins 0. Killed before this line, the entry
    // is a dead reader's without pins.
    entry.owner.store(0, std::memory_order_release);
}

boost::intrusive_ptr<ReaderEntry> ReaderEntry::Claim(std::shared_ptr<Segment> segment,
                                                     std::shared_ptr<ProcessLock> lock) {
    const ProcessTag own = lock->Join();
    const std::uint32_t pinning_entries = segment->geometry().pinning_entries;
    std::uint32_t number = ClaimAmong(*segment, *lock, own, 0, pinning_entries);
    if (number == pinning_entries) {
        number = ClaimAmong(*segment, *lock, own, pinning_entries, layout::kReaderEntries);
    }
    if (number == layout::kReaderEntries) {
        return nullptr;
    }
    return {new ReaderEntry(std::move(segment), std::move(lock), number)};
}

ReaderEntry::ReaderEntry(std::shared_ptr<Segment> segment, std::shared_ptr<ProcessLock> lock,
                         std::uint32_t number)
    : segment_(std::move(segment)),
      lock_(std::move(lock)),
      number_(number),
      entry_(segment_->reader_entry(number)),
      usable_pins_(number < segment_->geometry().pinning_entries
                       ? static_cast<int>(segment_->geometry().pins_per_entry)
                       : 0) {
    KVO_CRASH_POINT("reader entry claimed");
    ClearPins(entry_);  // those of a dead owner
    PublishStatistics({}, 0);
    if (usable_pins_ > 0) {
        RaiseUsedEntries();
        KVO_CRASH_POINT("reader entry counted");
    }
}

ReaderEntry::~ReaderEntry() {
    if (!os::InForkedChild()) {
        ReleaseEntry(entry_);
    }
}

void ReaderEntry::RaiseUsedEntries() {
    auto& used_entries = segment_->control().used_entries;
    // relaxed: a guess, which the exchange below checks.
    std::uint32_t seen = used_entries.load(std::memory_order_relaxed);
    // [used-entries] Sequentially consistent, before the first pin: a scan that does not cover this
    // entry began so early that the second load of the word in Pin() sees its round. A maximum,
    // because a plain store could lower what another reader has just raised.
    while (seen < number_ + 1 &&
           !used_entries.compare_exchange_weak(seen, number_ + 1, std::memory_order_seq_cst,
                                               std::memory_order_relaxed)) {
    }
}

[[gnu::hot]] ReaderEntry::PinOutcome ReaderEntry::Pin(std::uint32_t slot, std::uint64_t version,
                                                      int& pin) {
    assert(slot < segment_->geometry().slot_count);
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
    // loads of the pins: either its scan loads this pin, or this thread sees its round and with it
    // the word that it closed before. Killed in between, the pin stays until the entry is reaped.
    entry_.pins[free].store(slot + 1, std::memory_order_seq_cst);
    KVO_CRASH_POINT("pin stored");
    segment_->words().scan_round.load(std::memory_order_seq_cst);
    if (word.load(std::memory_order_acquire) != valid) [[unlikely]] {  // [slot-closed]
        entry_.pins[free].store(0, std::memory_order_release);         // [unpin]
        return PinOutcome::kMissed;
    }
    KVO_CRASH_POINT("pin held");
    used_ |= 1U << free;
    pin = free;
    return PinOutcome::kPinned;
}

[[gnu::hot]] void ReaderEntry::Unpin(int pin) {
    if (os::InForkedChild()) {
        return;
    }
    assert((used_ >> pin & 1U) != 0);
    // [unpin] Release: a scan that loads 0 comes after everything read through this pin.
    entry_.pins[pin].store(0, std::memory_order_release);
    KVO_CRASH_POINT("pin released");
    used_ &= ~(1U << pin);
}

// relaxed: shown to people, nothing is decided on it.
[[gnu::hot]] void ReaderEntry::PublishStatistics(const ReaderCounters& counters,
                                                 std::uint64_t next_sequence) {
    constexpr auto relaxed = std::memory_order_relaxed;
    layout::ReaderStatistics& statistics = segment_->reader_statistics(number_);
    statistics.next_sequence.store(next_sequence, relaxed);
    statistics.read.store(counters.read, relaxed);
    statistics.lost.store(counters.lost, relaxed);
    statistics.superseded.store(counters.superseded, relaxed);
    statistics.expired.store(counters.expired, relaxed);
    statistics.checksum_failures.store(counters.checksum_failures, relaxed);
    statistics.copied.store(counters.copied, relaxed);
}

}  // namespace kvo
