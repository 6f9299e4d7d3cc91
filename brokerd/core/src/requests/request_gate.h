#pragma once

#include "kvo/os/thread_bound.h"
#include "streams/supervised_time.h"

#include <cstdint>
#include <map>
#include <string>

namespace kvo::brokerd {

/// Bounds what one connection may ask for, so that it leaves time for the others.
/// Threads: one.
class RequestGate {
public:
    struct Limits {
        std::uint32_t rate;   // requests a second of one connection; 0: no limit
        std::uint32_t burst;  // requests at once, above the rate
    };
    explicit RequestGate(const Limits& limits) : limits_(limits) {}

    /// Counts one request. Throws std::runtime_error naming the limit that it is beyond.
    void Admit(const std::string& connection, TimePoint now);

    /// Forgets the connections that have been idle for so long that their burst is full again,
    /// those that have ended among them. To be called now and then.
    void ForgetIdle(TimePoint now);

    void set_limits(const Limits& limits) { limits_ = limits; }
    std::uint64_t admitted() const { return admitted_; }
    std::uint64_t throttled() const { return throttled_; }

private:
    struct Bucket {
        double left;  // requests
        TimePoint filled;
    };
    void Fill(Bucket& bucket, TimePoint now) const;

    os::ThreadBound thread_;
    Limits limits_;
    std::map<std::string, Bucket> connections_;
    std::uint64_t admitted_ = 0;
    std::uint64_t throttled_ = 0;
};

}  // namespace kvo::brokerd
