#include "layout/geometry.h"

#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace kvo {
namespace {

constexpr std::uint64_t kMaxPayload = std::numeric_limits<std::int32_t>::max();
constexpr std::uint32_t kMaxReclaimBatch = 32;

constexpr std::uint64_t RoundUp(std::uint64_t value, std::uint64_t multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

void Demand(bool condition, const char* what, std::int64_t value, std::uint64_t limit) {
    if (!condition) {
        throw std::invalid_argument(std::string(what) + " of " + std::to_string(value) +
                                    " refused: 1 to " + std::to_string(limit));
    }
}

// Closing many slots at a time spreads the cost of one scan; with large slots the copy outweighs
// the scan, and every slot more costs memory.
std::uint32_t ReclaimBatchFor(std::uint64_t slot_bytes) {
    if (slot_bytes <= 4096) {
        return kMaxReclaimBatch;
    }
    return slot_bytes < (256U << 10) ? 8 : 1;
}

}  // namespace

std::uint64_t StrideOf(std::uint64_t max_payload_bytes, std::uint64_t max_metadata_bytes) {
    return RoundUp(max_payload_bytes + max_metadata_bytes, 64);
}

FileOffsets OffsetsOf(const StreamGeometry& geometry) {
    FileOffsets offsets;
    // One more than is retained: the entry that a new sample takes belongs to none of the newest
    // ones, also in the moment in which `head` does not name the new one yet.
    offsets.index_entries = std::bit_ceil(geometry.retained_samples + 1);
    offsets.slot_headers =
        RoundUp(layout::kIndexOffset + offsets.index_entries * sizeof(layout::IndexEntry), 64);
    offsets.payload =
        RoundUp(offsets.slot_headers + geometry.slot_count * sizeof(layout::SlotHeader),
                layout::kPageBytes);
    offsets.file_bytes =
        RoundUp(offsets.payload + geometry.slot_count * geometry.slot_stride, layout::kPageBytes);
    return offsets;
}

std::string CheckGeometry(const StreamGeometry& geometry) {
    const auto& g = geometry;
    if (g.max_payload_bytes < 1 || g.max_payload_bytes > kMaxPayload) {
        return "payload size " + std::to_string(g.max_payload_bytes);
    }
    if (g.max_metadata_bytes > kMaxMetadataBytes) {
        return "metadata size " + std::to_string(g.max_metadata_bytes);
    }
    if (g.retained_samples < 1 || g.retained_samples > layout::kMaxSlots) {
        return "number of samples " + std::to_string(g.retained_samples);
    }
    if (g.pinning_entries < 1 || g.pinning_entries > layout::kReaderEntries ||
        g.pins_per_entry < 1 || g.pins_per_entry > layout::kMaxPinsPerEntry ||
        g.reclaim_batch < 1 || g.reclaim_batch > kMaxReclaimBatch) {
        return "pin limits";
    }
    const auto slots =
        std::uint64_t{g.retained_samples} + g.pinning_entries * g.pins_per_entry + g.reclaim_batch;
    if (g.slot_count != slots || slots > layout::kMaxSlots) {
        return "slot count " + std::to_string(g.slot_count);
    }
    if (g.slot_stride != StrideOf(g.max_payload_bytes, g.max_metadata_bytes)) {
        return "slot stride " + std::to_string(g.slot_stride);
    }
    if (g.file_bytes != OffsetsOf(g).file_bytes || g.control_bytes != layout::kControlBytes) {
        return "file size " + std::to_string(g.file_bytes);
    }
    return {};
}

std::uint64_t HeaderDigest(const layout::HeaderFields& fields) {
    return XXH3_64bits(&fields, offsetof(layout::HeaderFields, header_digest));
}

KeyDigest DigestKey(const std::string& publisher_key) {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(publisher_key.data(), publisher_key.size()));
    KeyDigest digest{};
    static_assert(sizeof canonical.digest == sizeof digest);
    std::memcpy(digest.data(), canonical.digest, digest.size());
    return digest;
}

StreamGeometry PlanGeometry(std::int64_t max_payload_bytes, std::int64_t retained_samples,
                            const SpareSlots& spare) {
    Demand(max_payload_bytes >= 1 && max_payload_bytes <= static_cast<std::int64_t>(kMaxPayload),
           "sample size", max_payload_bytes, kMaxPayload);
    Demand(retained_samples >= 1 && retained_samples <= layout::kMaxSlots, "number of samples",
           retained_samples, layout::kMaxSlots);
    Demand(spare.pins_per_entry >= 1 && spare.pins_per_entry <= layout::kMaxPinsPerEntry,
           "pins of a reader", spare.pins_per_entry, layout::kMaxPinsPerEntry);

    StreamGeometry g;
    g.max_payload_bytes = static_cast<std::uint32_t>(max_payload_bytes);
    g.retained_samples = static_cast<std::uint32_t>(retained_samples);
    g.pins_per_entry = spare.pins_per_entry;
    g.slot_stride = StrideOf(g.max_payload_bytes, g.max_metadata_bytes);

    const std::uint64_t least = std::max(spare.least, g.pins_per_entry + 1);
    const std::uint64_t most = std::max<std::uint64_t>(spare.most, least);
    const auto slots =
        static_cast<std::uint32_t>(std::clamp(spare.budget_bytes / g.slot_stride, least, most));
    // With few spare slots most of them serve readers.
    g.reclaim_batch = std::min(ReclaimBatchFor(g.slot_stride), std::max(1U, slots / 4));
    g.pinning_entries =
        std::clamp((slots - g.reclaim_batch) / g.pins_per_entry, 1U, layout::kReaderEntries);

    const auto total = retained_samples + g.pinning_entries * g.pins_per_entry + g.reclaim_batch;
    Demand(total <= layout::kMaxSlots, "number of slots", total, layout::kMaxSlots);
    g.slot_count = static_cast<std::uint32_t>(total);
    g.file_bytes = OffsetsOf(g).file_bytes;
    g.control_bytes = layout::kControlBytes;
    return g;
}

}  // namespace kvo
