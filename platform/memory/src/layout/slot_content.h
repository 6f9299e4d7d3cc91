#pragma once

#include "layout/segment.h"

#include <cstddef>
#include <cstdint>
#include <optional>

namespace kvo {

/// A slot's header as one reader took it. Sizes fit the slot, whatever stood in the file.
struct SlotContent {
    std::uint32_t payload_bytes = 0;
    std::uint32_t metadata_bytes = 0;
    std::int32_t sample_tag = 0;
    std::int32_t topic_id = 0;
    std::uint64_t timestamp_ms = 0;
    std::uint64_t monotonic_ns = 0;
    std::uint64_t checksum = 0;
    bool damaged = false;  // a size did not fit
    bool has_checksum = false;
    std::uint64_t source_sequence = 0;  // 0: the version
    std::size_t total_bytes() const { return std::size_t{payload_bytes} + metadata_bytes; }
};

/// Into the place where it is kept: a copy of it would have to wait for all of its parts.
void LoadContent(const Segment& segment, std::uint32_t slot, SlotContent& content);

/// What stands in a version's place of the index; a slot in it need not exist.
std::uint64_t LoadIndex(const Segment& segment, std::uint64_t version);

/// The slot that the index names for a version, if it names one.
[[nodiscard]] std::optional<std::uint32_t> FindSlot(const Segment& segment, std::uint64_t version);

/// XXH3 64 over payload and metadata as they lie in a slot.
// Out of line, as its code would lie between that of the reads without one.
[[gnu::noinline]] std::uint64_t ChecksumOf(const unsigned char* bytes, std::uint32_t payload_bytes,
                                           std::uint32_t metadata_bytes);

/// CLOCK_MONOTONIC, the same for all processes of a host, as it was at the kernel's last tick (1
/// to 10 ms ago): good enough for ages, at a quarter of what the exact time costs.
std::uint64_t MonotonicTick();

}  // namespace kvo
