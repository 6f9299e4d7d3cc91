#pragma once

#include "kvo/broker/identifiers.h"

#include <cstdint>
#include <string>

namespace kvo {

/// What a publisher asks a broker for: the parameters of AddPublisher, in their order.
struct PublisherRequest {
    StreamName stream;
    std::int32_t latency_ms = 0;  // for other hosts; 0 and below: none
    std::int32_t deadline_s = 0;  // for other hosts; 0 and below: none
    std::int32_t max_payload_bytes = 0;
    std::int32_t retained_samples = 0;
    bool checksum = false;
    std::string key;  // empty: the first registration
};

}  // namespace kvo
