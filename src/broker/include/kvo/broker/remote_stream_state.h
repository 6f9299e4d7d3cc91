#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace kvo {

/// What one stream has moved and lost in one direction between two hosts.
struct TransferCounters {
    std::uint64_t samples = 0;
    std::uint64_t payload_bytes = 0;
    std::uint64_t lost_in_transit = 0;           // import: sequence numbers that never arrived
    std::uint64_t rejected = 0;                  // import: did not fit the stream file
    std::uint64_t overrun = 0;                   // export: overwritten before they were sent
    std::uint64_t dropped_by_back_pressure = 0;  // export: a host accepted nothing for too long
};

/// One cause of loss. Wire, JSON, sums, metrics and statistics go through the table below.
struct TransferLoss {
    const char* name;
    bool import;  // else an export loses them
    std::uint64_t TransferCounters::*count;
};
inline constexpr std::array kTransferLosses{
    TransferLoss{"lost_in_transit", true, &TransferCounters::lost_in_transit},
    TransferLoss{"rejected", true, &TransferCounters::rejected},
    TransferLoss{"overrun", false, &TransferCounters::overrun},
    TransferLoss{"dropped_by_back_pressure", false, &TransferCounters::dropped_by_back_pressure},
};

/// One stream between a broker and another one: an element of the result of ListRemoteStreams, on
/// the wire a map.
struct RemoteStreamState : TransferCounters {
    std::string broker;  // URI of the other one, or the name that it gives itself
    std::string stream;
    bool import = false;  // from the other broker; else to it
    bool live = false;
    double samples_per_s = 0;  // over the last seconds
    double bytes_per_s = 0;
    std::uint64_t deadlines_missed = 0;  // import: times that no sample came for a subscriber's

    /// Hands each field to take(name, field).
    template <class Self, class Take>
    static void ForEachField(Self& self, Take take) {
        take("broker", self.broker);
        take("stream", self.stream);
        take("import", self.import);
        take("live", self.live);
        take("samples", self.samples);
        take("payload_bytes", self.payload_bytes);
        take("samples_per_s", self.samples_per_s);
        take("bytes_per_s", self.bytes_per_s);
        for (const TransferLoss& loss : kTransferLosses) {
            take(loss.name, self.*loss.count);
        }
        take("deadlines_missed", self.deadlines_missed);
    }
};

}  // namespace kvo
