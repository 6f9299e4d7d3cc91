#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kvo::tools {

/// What this host does, from the kernel's counters. Rates are taken between two readings.
/// Threads: one.
class Telemetry {
public:
    /// @param proc_directory where the counters lie.
    explicit Telemetry(std::string proc_directory = "/proc");

    /// Reads the counters. @param now for the time stamp. @param tick for the rates.
    /// @return one line of JSON without its newline: time_ms (since the Unix
    /// epoch), cpu_percent, load_1m, load_5m, memory_total_bytes, memory_available_bytes,
    /// network_received_bytes_per_s, network_sent_bytes_per_s (all interfaces but lo). The fields
    /// that are rates are 0 in the first line. Throws std::runtime_error naming the file that
    /// cannot be read or understood.
    std::string Sample(std::chrono::system_clock::time_point now,
                       std::chrono::steady_clock::time_point tick);

private:
    struct Counters {
        std::uint64_t cpu_busy = 0;   // clock ticks of all processors
        std::uint64_t cpu_total = 0;  // the same with idle ones
        std::uint64_t received_bytes = 0;
        std::uint64_t sent_bytes = 0;
        std::chrono::steady_clock::time_point taken_at;
    };
    Counters ReadCounters(std::chrono::steady_clock::time_point tick) const;

    const std::string proc_directory_;
    std::optional<Counters> before_;
};

}  // namespace kvo::tools
