#include "lifetime/segment_state.h"

#include "layout/tags.h"

#include <algorithm>

namespace kvo {
namespace {

// relaxed everywhere: nothing that others wrote is read on the account of these.
constexpr auto kRelaxed = std::memory_order_relaxed;

}  // namespace

WriterState WriterStateOf(const Segment& segment) {
    const auto& counters = segment.writer_counters();
    const std::uint64_t role = segment.words().writer_role.load(kRelaxed);
    WriterState state;
    state.retired = segment.retired();
    state.writer = {RoleNumber(role), RoleNonce(role)};
    state.newest_sequence = segment.words().head.load(kRelaxed);
    state.written = counters.written.load(kRelaxed);
    state.payload_bytes = counters.payload_bytes.load(kRelaxed);
    state.dropped = counters.dropped.load(kRelaxed);
    state.discarded = counters.discarded.load(kRelaxed);
    state.last_write_ms = counters.last_write_ms.load(kRelaxed);
    return state;
}

std::vector<ReaderState> ReaderStatesOf(const Segment& segment) {
    std::vector<ReaderState> readers;
    for (std::uint32_t number = 0; number < layout::kRows; ++number) {
        const auto& row = segment.row(number);
        const std::uint64_t owner = row.owner.load(kRelaxed);
        if (owner == 0) {
            continue;
        }
        const auto& ledger = segment.ledger(number);
        ReaderState reader;
        reader.row = number;
        reader.reader = UnpackOwner(owner);
        reader.pins = static_cast<std::uint32_t>(
            std::count_if(std::begin(row.pins), std::end(row.pins),
                          [](const auto& pin) { return pin.load(kRelaxed) != 0; }));
        reader.next_sequence = ledger.next_sequence.load(kRelaxed);
        reader.read = ledger.read.load(kRelaxed);
        reader.lost = ledger.lost.load(kRelaxed);
        reader.replaced = ledger.replaced.load(kRelaxed);
        reader.stale = ledger.stale.load(kRelaxed);
        reader.checksum_failures = ledger.checksum_failures.load(kRelaxed);
        readers.push_back(reader);
    }
    return readers;
}

}  // namespace kvo
