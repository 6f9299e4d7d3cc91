#pragma once

#include "kvo/memory_export.h"

#include <array>
#include <cstdint>
#include <string>

// The shape of a segment and what its header names.
namespace kvo {

inline constexpr std::uint32_t kMaxMetadataBytes = 1500;  // largest metadata of a sample
inline constexpr std::uint32_t kReaderEntries = 256;      // of a stream's reader table

using Uuid = std::array<unsigned char, 16>;
using KeyDigest = std::array<unsigned char, 16>;  // XXH3 128-bit of the publisher's key

/// Digest of a publisher's key as it stands in the header of a stream file.
KVO_MEMORY_EXPORT KeyDigest DigestKey(const std::string& publisher_key);

/// The shape of a segment; docs/stream-file.md says why slots = retained + entries * pins + batch.
struct StreamGeometry {
    std::uint32_t max_payload_bytes = 0;
    std::uint32_t max_metadata_bytes = kMaxMetadataBytes;
    std::uint32_t retained_samples = 0;  // N
    std::uint32_t pinning_entries = 0;   // Z
    std::uint32_t pins_per_entry = 0;    // P
    std::uint32_t reclaim_batch = 0;     // B
    std::uint32_t slot_count = 0;
    std::uint64_t slot_stride = 0;  // bytes of one slot
    std::uint64_t file_bytes = 0;   // data file
    std::uint64_t control_bytes = 0;
    std::uint64_t total_bytes() const { return file_bytes + control_bytes; }
};

struct SpareSlots {
    std::uint64_t budget_bytes = 16ULL << 20;  // spare slots fit into this much
    std::uint32_t least = 4;
    std::uint32_t most = 1024;
    std::uint32_t pins_per_entry = 2;  // 1 to 6
};

/// Plans a segment; throws std::invalid_argument naming the value and the limit when a value is
/// below 1 or the slots are too many for the layout.
[[nodiscard]] KVO_MEMORY_EXPORT StreamGeometry PlanGeometry(std::int64_t max_payload_bytes,
                                                            std::int64_t retained_samples,
                                                            const SpareSlots& spare);

}  // namespace kvo
