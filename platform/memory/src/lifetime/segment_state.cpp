#include "lifetime/segment_state.h"

#include "lifetime/tags.h"

#include <algorithm>

// relaxed everywhere: nothing that other processes wrote is read on the account of these.
namespace kvo {

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
    for (std::uint32_t number = 0; number < layout::kReaderEntries; ++number) {
        const auto& entry = segment.reader_entry(number);
        const std::uint64_t owner = entry.owner.load(std::memory_order_relaxed);
        if (owner == 0) {
            continue;
        }
        const auto& statistics = segment.reader_statistics(number);
        ReaderState reader;
        reader.entry = number;
        reader.reader = UnpackOwner(owner);
        reader.pins = static_cast<std::uint32_t>(std::count_if(
            std::begin(entry.pins), std::end(entry.pins),
            [](const auto& pin) { return pin.load(std::memory_order_relaxed) != 0; }));
        reader.next_sequence = statistics.next_sequence.load(std::memory_order_relaxed);
        reader.read = statistics.read.load(std::memory_order_relaxed);
        reader.lost = statistics.lost.load(std::memory_order_relaxed);
        reader.superseded = statistics.superseded.load(std::memory_order_relaxed);
        reader.expired = statistics.expired.load(std::memory_order_relaxed);
        reader.checksum_failures = statistics.checksum_failures.load(std::memory_order_relaxed);
        readers.push_back(reader);
    }
    return readers;
}

}  // namespace kvo
