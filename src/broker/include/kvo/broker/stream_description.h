#pragma once

#include "kvo/broker_interface_export.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kvo {

/// What a broker tells another one about a stream of its host.
struct StreamDescription {
    std::string broker;      // drawn anew by each broker that starts
    bool published = false;  // all that follows is of the publisher that there is
    std::uint64_t epoch = 0;
    std::uint32_t max_payload_bytes = 0;
    std::uint32_t retained_samples = 0;
    bool checksum = false;
    std::int32_t latency_ms = 0;  // the publisher's; 0 and below: none
    std::int32_t deadline_s = 0;  // the publisher's; 0 and below: none
    std::uint32_t domain = 0;     // where the export is, as its engine counts
    std::string topic;            // empty: the stream is not exported
};

/// As DescribeStream answers it.
KVO_BROKER_INTERFACE_EXPORT std::vector<std::string> EncodeDescription(
    const StreamDescription& description);
/// Takes further elements for those of a later version. Throws std::runtime_error saying what is
/// missing or no number.
KVO_BROKER_INTERFACE_EXPORT StreamDescription
DecodeDescription(const std::vector<std::string>& elements);

}  // namespace kvo
