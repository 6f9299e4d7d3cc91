#pragma once

#include <cstdint>

namespace kvo {

/// What a reader did not get, by cause. Samples of all epochs since the accessor was made.
struct ReaderCounters {
    std::uint64_t read = 0;
    std::uint64_t lost = 0;        // overwritten before this reader came to them
    std::uint64_t superseded = 0;  // unread in an epoch that was left
    std::uint64_t expired = 0;     // older than the reader's maximum age
    std::uint64_t checksum_failures = 0;
    std::uint64_t copied = 0;  // of the read ones: without a pin, from a copy
};

struct WriterCounters {
    std::uint64_t written = 0;  // samples in this segment
    std::uint64_t dropped = 0;  // no free slot (only after a process wrote another reader's entry)
    std::uint64_t discarded = 0;  // written to a retired segment
};

}  // namespace kvo
