#include "layout/slot_content.h"

#include <xxhash.h>

#include <algorithm>
#include <ctime>

namespace kvo {

// relaxed throughout: the slot's word, loaded before and again after, says whether it counts.
[[gnu::hot]] void LoadContent(const Segment& segment, std::uint32_t slot, SlotContent& content) {
    constexpr auto relaxed = std::memory_order_relaxed;
    const layout::SlotHeader& header = segment.slot(slot);
    const std::uint32_t payload_bytes = header.payload_bytes.load(relaxed);
    const std::uint32_t metadata_bytes = header.metadata_bytes.load(relaxed);
    content.payload_bytes = std::min(payload_bytes, segment.geometry().max_payload_bytes);
    content.metadata_bytes = std::min(metadata_bytes, segment.geometry().max_metadata_bytes);
    content.damaged =
        content.payload_bytes != payload_bytes || content.metadata_bytes != metadata_bytes;
    content.sample_tag = header.sample_tag.load(relaxed);
    content.topic_id = header.topic_id.load(relaxed);
    content.timestamp_ms = header.timestamp_ms.load(relaxed);
    content.monotonic_ns = header.monotonic_ns.load(relaxed);
    content.checksum = header.checksum.load(relaxed);
    content.has_checksum = (header.flags.load(relaxed) & layout::kSlotHasChecksum) != 0;
    const std::uint64_t source_sequence = header.source_sequence.load(relaxed);
    // It was a version elsewhere; anything else is no number of a sample.
    content.source_sequence = source_sequence <= layout::kMaxVersion ? source_sequence : 0;
}

std::uint64_t LoadIndex(const Segment& segment, std::uint64_t version) {
    // [indexed] Acquire: the slot's word is at least that of the version. A later version's word
    // is found out by comparing.
    return segment.index(version).load(std::memory_order_acquire);
}

[[gnu::hot]] std::optional<std::uint32_t> FindSlot(const Segment& segment, std::uint64_t version) {
    const std::uint64_t entry = LoadIndex(segment, version);
    const std::uint32_t slot = layout::IndexSlot(entry);
    if (entry != layout::PackIndex(version, slot) || slot >= segment.geometry().slot_count) {
        return std::nullopt;
    }
    return slot;
}

std::uint64_t ChecksumOf(const unsigned char* bytes, std::uint32_t payload_bytes,
                         std::uint32_t metadata_bytes) {
    return XXH3_64bits_withSeed(bytes, std::size_t{payload_bytes} + metadata_bytes, payload_bytes);
}

std::uint64_t MonotonicTick() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace kvo
