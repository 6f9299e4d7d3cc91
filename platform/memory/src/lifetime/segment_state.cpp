#include "lifetime/segment_state.h"

#include "layout/tags.h"

#include <algorithm>

namespace kvo {
namespace {

// relaxed everywhere: nothing that others wrote is read on the account of these.

}  // namespace

WriterState WriterStateOf(const Segment& segment) {
    const auto& counters = segment.writer_counters();
    const std::uint64_t role = segment.words().writer_role.load(std::memory_order_relaxed);
    WriterState state;
    state.retired = segment.retired();
    state.writer = {RoleNumber(role), RoleNonce(role)};
    state.newest_sequence = segment.words().head.load(std::memory_order_relaxed);
    state.written = counters.written.load(std::memory_order_relaxed);
    state.payload_bytes = counters.payload_bytes.load(std::memory_order_relaxed);
    state.dropped = counters.dropped.load(std::memory_order_relaxed);
    state.discarded = counters.discarded.load(std::memory_order_relaxed);
    state.last_write_ms = counters.last_write_ms.load(std::memory_order_relaxed);
    return state;
}

std::vector<ReaderState> ReaderStatesOf(const Segment& segment) {
    std::vector<ReaderState> readers;
    for (std::uint32_t number = 0; number < layout::kRows; ++number) {
        const auto& row = segment.row(number);
        const std::uint64_t owner = row.owner.load(std::memory_order_relaxed);
        if (owner == 0) {
            continue;
        }
        const auto& ledger = segment.ledger(number);
        ReaderState reader;
        reader.row = number;
        reader.reader = UnpackOwner(owner);
        reader.pins = static_cast<std::uint32_t>(std::count_if(
            std::begin(row.pins), std::end(row.pins),
            [](const auto& pin) { return pin.load(std::memory_order_relaxed) != 0; }));
        reader.next_sequence = ledger.next_sequence.load(std::memory_order_relaxed);
        reader.read = ledger.read.load(std::memory_order_relaxed);
        reader.lost = ledger.lost.load(std::memory_order_relaxed);
        reader.replaced = ledger.replaced.load(std::memory_order_relaxed);
        reader.stale = ledger.stale.load(std::memory_order_relaxed);
        reader.checksum_failures = ledger.checksum_failures.load(std::memory_order_relaxed);
        readers.push_back(reader);
    }
    return readers;
}

}  // namespace kvo
