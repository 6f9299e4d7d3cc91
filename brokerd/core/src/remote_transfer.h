#pragma once

#include <cstdint>

namespace kvo::brokerd {

/// What has gone one way between two hosts since the transfer began.
struct TransferState {
    std::uint64_t samples = 0;
    std::uint64_t payload_bytes = 0;
    std::uint64_t lost_on_the_way = 0;  // import: numbers that never came
    std::uint64_t not_taken = 0;        // import: did not fit the file
    std::uint64_t overtaken = 0;        // export: overwritten before they could be sent
    std::uint64_t held_up = 0;          // export: given up, since a host took nothing
    std::uint32_t readers = 0;          // export: hosts and other readers of the topic
    bool connected = false;             // import: the other end is there
};

/// One stream on its way to or from other hosts, until it is destroyed, which may take a second.
class RemoteTransfer {
public:
    virtual ~RemoteTransfer() = default;
    /// There may be new data. Any thread.
    virtual void Signal() {}
    /// Any thread.
    virtual TransferState State() const = 0;
};

}  // namespace kvo::brokerd
