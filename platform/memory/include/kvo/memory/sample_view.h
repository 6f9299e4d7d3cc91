#pragma once

#include <cstdint>

namespace kvo {

/// One sample to be copied; it owns nothing. The bytes stay valid until the call returns that it is
/// passed to.
struct SampleView {
    const unsigned char* payload = nullptr;
    std::uint32_t payload_bytes = 0;
    const unsigned char* metadata = nullptr;
    std::uint32_t metadata_bytes = 0;
    std::int32_t sample_tag = 0;
    std::int32_t topic_id = 0;
    std::uint64_t timestamp_ms = 0;     // since the Unix epoch
    std::uint64_t source_epoch = 0;     // of the segment at its publisher's host; 0: this host
    std::uint64_t source_sequence = 0;  // within that epoch, from 1; 0: this host
};

}  // namespace kvo
