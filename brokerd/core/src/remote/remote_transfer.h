#pragma once

#include "kvo/brokerd/broker_state.h"

#include <chrono>
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
    // Export: the age of what is being sent; 0: nothing waits. In no sum.
    std::chrono::milliseconds behind{0};

    TransferState& operator+=(const TransferState& more) {
        samples += more.samples;
        payload_bytes += more.payload_bytes;
        lost_on_the_way += more.lost_on_the_way;
        not_taken += more.not_taken;
        overtaken += more.overtaken;
        held_up += more.held_up;
        return *this;
    }
};

/// One stream on its way to or from other hosts, until it is destroyed, which may take a second.
class RemoteTransfer {
public:
    virtual ~RemoteTransfer() = default;
    /// There may be new data. Any thread.
    virtual void Signal() {}
    /// To be destroyed soon, when others send what it has not sent yet. Any thread.
    virtual void Abandon() {}
    /// Any thread.
    virtual TransferState State() const = 0;
};

/// @param transfer null: there is none now. @return what it and the earlier ones have moved.
inline TransferState TotalOf(const TransferState& before, const RemoteTransfer* transfer) {
    TransferState total = before;
    return transfer == nullptr ? total : total += transfer->State();
}

/// Samples and bytes a second, over some seconds.
class TransferRates {
public:
    void Update(const TransferState& total, std::chrono::steady_clock::time_point now) {
        if (since_ == std::chrono::steady_clock::time_point{}) {
            since_ = now;
        }
        if (now - since_ < kPeriod) {
            return;
        }
        const double seconds = std::chrono::duration<double>(now - since_).count();
        samples_per_s_ = static_cast<double>(total.samples - samples_) / seconds;
        bytes_per_s_ = static_cast<double>(total.payload_bytes - bytes_) / seconds;
        since_ = now;
        samples_ = total.samples;
        bytes_ = total.payload_bytes;
    }
    double samples_per_s() const { return samples_per_s_; }
    double bytes_per_s() const { return bytes_per_s_; }

private:
    static constexpr std::chrono::seconds kPeriod{2};
    std::chrono::steady_clock::time_point since_;
    std::uint64_t samples_ = 0;
    std::uint64_t bytes_ = 0;
    double samples_per_s_ = 0;
    double bytes_per_s_ = 0;
};

/// Both, as they are shown; of what and whose is left open.
inline RemoteStreamState StateOf(const TransferState& total, const TransferRates& rates) {
    RemoteStreamState state;
    state.samples = total.samples;
    state.payload_bytes = total.payload_bytes;
    state.samples_per_s = rates.samples_per_s();
    state.bytes_per_s = rates.bytes_per_s();
    state.lost_on_the_way = total.lost_on_the_way;
    state.not_taken = total.not_taken;
    state.overtaken = total.overtaken;
    state.held_up = total.held_up;
    return state;
}

}  // namespace kvo::brokerd
