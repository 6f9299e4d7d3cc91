#pragma once

#include <cstdint>
#include <string>

namespace kvo {

/// What a broker tells another one about a stream of its host: the result of DescribeStream, on the
/// wire a map.
struct StreamDescription {
    std::string broker;      // drawn anew by each broker that starts
    bool published = false;  // all that follows is of the present publisher
    std::uint64_t epoch = 0;
    std::uint32_t max_payload_bytes = 0;
    std::uint32_t retained_samples = 0;
    bool checksum = false;
    std::int32_t latency_ms = 0;  // the publisher's; 0 and below: none
    std::int32_t deadline_s = 0;  // the publisher's; 0 and below: none
    std::string topic;            // empty: the stream is not exported

    /// Hands each field to take(name, field).
    template <class Self, class Take>
    static void ForEachField(Self& self, Take take) {
        take("broker", self.broker);
        take("published", self.published);
        take("epoch", self.epoch);
        take("max_payload_bytes", self.max_payload_bytes);
        take("retained_samples", self.retained_samples);
        take("checksum", self.checksum);
        take("latency_ms", self.latency_ms);
        take("deadline_s", self.deadline_s);
        take("topic", self.topic);
    }
};

}  // namespace kvo
