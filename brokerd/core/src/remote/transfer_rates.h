#pragma once

#include "kvo/broker/remote_stream_state.h"

#include <chrono>
#include <cstdint>

namespace kvo::brokerd {

/// Samples and bytes a second, over some seconds. Threads: one.
class TransferRates {
public:
    void Update(const TransferCounters& total, std::chrono::steady_clock::time_point now) {
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

/// Both as they are shown; broker, stream and direction are left to the caller.
inline RemoteStreamState StateOf(const TransferCounters& total, const TransferRates& rates) {
    RemoteStreamState state;
    static_cast<TransferCounters&>(state) = total;
    state.samples_per_s = rates.samples_per_s();
    state.bytes_per_s = rates.bytes_per_s();
    return state;
}

}  // namespace kvo::brokerd
