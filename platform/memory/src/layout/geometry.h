#pragma once

#include "kvo/memory/stream_geometry.h"
#include "layout/stream_file_layout.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kvo {

/// Where things lie in a data file of a given geometry.
struct FileOffsets {
    std::uint32_t index_entries = 0;
    std::uint64_t slot_headers = 0;
    std::uint64_t payload = 0;
    std::uint64_t file_bytes = 0;
};
FileOffsets OffsetsOf(const StreamGeometry& geometry);

std::uint64_t StrideOf(std::uint64_t max_payload_bytes, std::uint64_t max_metadata_bytes);

/// What is wrong with a geometry; empty: nothing.
[[nodiscard]] std::string CheckGeometry(const StreamGeometry& geometry);

std::uint64_t HeaderDigest(const layout::HeaderFields& fields);

}  // namespace kvo
