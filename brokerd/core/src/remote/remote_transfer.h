#pragma once

#include "kvo/broker/remote_stream_state.h"

#include <chrono>

namespace kvo::brokerd {

/// One stream on its way to or from other hosts, until the object is destroyed, which may take a
/// second.
class RemoteTransfer {
public:
    virtual ~RemoteTransfer() = default;
    /// There may be new data. Any thread.
    virtual void Signal() {}
    /// The object is destroyed soon and others send what it has not sent yet. Any thread.
    virtual void Abandon() {}
    /// Since the transfer began. Any thread.
    virtual TransferCounters Counters() const = 0;
    /// Export: the age of the sample that is being sent; 0: nothing waits. Any thread.
    virtual std::chrono::milliseconds Lag() const { return std::chrono::milliseconds(0); }
};

inline TransferCounters operator+(TransferCounters total, const TransferCounters& more) {
    total.samples += more.samples;
    total.payload_bytes += more.payload_bytes;
    for (const TransferLoss& loss : kTransferLosses) {
        total.*loss.count += more.*loss.count;
    }
    return total;
}

/// @param transfer null: there is none now. @return what it and the earlier ones have moved.
inline TransferCounters TotalOf(const TransferCounters& before, const RemoteTransfer* transfer) {
    return transfer == nullptr ? before : before + transfer->Counters();
}

}  // namespace kvo::brokerd
