#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kvo::bench {

/// Nanoseconds of the monotonic clock, which the hosts of one machine share.
std::uint64_t Now();

/// What sender and receiver share beside the link, in a file: how far the receiver is, so that the
/// sender goes as fast as that and no faster, whatever the system under measurement does.
struct Progress {
    std::atomic<std::uint64_t> received;  // receiver writes, sender reads; relaxed: a count
    std::atomic<std::uint64_t> last_ns;   // when; likewise
    std::atomic<std::uint64_t> ready;     // 1: the receiver has had the first sample

    /// Of all processes that name the file; it stays mapped to the end of the process.
    static Progress& At(const std::string& path);
};

/// Of the receiver: counts, and keeps the latencies of the samples that carry their time.
class Account {
public:
    explicit Account(Progress& progress) : progress_(progress) { latencies_.reserve(1 << 20); }
    void Take(const unsigned char* payload);
    /// Medians and the like in one line of JSON.
    std::string Json() const;

private:
    Progress& progress_;
    std::vector<std::uint32_t> latencies_;
};

}  // namespace kvo::bench
