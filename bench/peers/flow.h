#pragma once

#include "peer.h"
#include "shared_pages.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <limits>
#include <sys/types.h>

namespace kvo::bench {

inline constexpr std::size_t kMostReaders = 64;
inline constexpr std::uint64_t kNoDaemon = std::numeric_limits<std::uint64_t>::max();

/// Nanoseconds of the monotonic clock, the same in all processes.
std::uint64_t Now();

/// How samples follow each other.
struct Plan {
    Load load;
    std::uint64_t duration_ns = 0;
    std::uint64_t pause_ns = 0;  // from one sample to the next; 0: as fast as the readers follow
    std::uint64_t batch = 1;     // samples written before readers are told

    /// Samples that are timed one by one; without a pause none.
    std::size_t timed_samples() const { return pause_ns == 0 ? 0 : duration_ns / pause_ns; }
};

/// One reader's part of what the processes share. The reader writes, publisher and driver read.
struct ReaderState {
    // [taken] Sequence number after the last one that was taken, told now and then. Release: the
    // publisher, who loads it with acquire, may use the buffers of the samples before it again,
    // and the figures below are those of that moment.
    alignas(64) std::atomic<std::uint64_t> position;
    // [attached] Release: process and time of registration are there.
    alignas(64) std::atomic<bool> attached;
    pid_t process;
    std::uint64_t registration_ns;
    std::uint64_t received;
    std::uint64_t first_ns;
    std::uint64_t last_ns;
};

/// What publisher, readers and driver share during one measurement.
struct FlowState {
    std::atomic<bool> publisher_ready;  // [ready] release by the publisher, acquire by the driver
    // [finished] Release by the publisher after its figures; acquire by readers and driver.
    std::atomic<bool> finished;
    std::uint64_t registration_ns;
    std::uint64_t sent;
    std::uint64_t elapsed_ns;
    std::uint64_t cpu_ns;           // of publisher, readers and daemon while samples flowed
    std::uint64_t daemon_switches;  // of context in that time, or kNoDaemon
    std::array<ReaderState, kMostReaders> readers;
};

/// Memory of one measurement, made before the processes are forked.
struct Flow {
    explicit Flow(const Plan& the_plan);
    FlowState& state() const { return pages[0]; }
    std::uint32_t* latencies(std::size_t reader) const {
        return latency_pages.begin() + reader * plan.timed_samples();
    }

    const Plan plan;
    const SharedPages<FlowState> pages;
    const SharedPages<std::uint32_t> latency_pages;  // nanoseconds, reader by reader; 0: lost
    const SharedPages<std::uint32_t> calls;          // nanoseconds in the publisher's call
};

/// A reader's account of the samples that it gets. Threads: Take() from one at a time, over() from
/// any.
class Account {
public:
    Account(const Flow& flow, std::size_t reader);

    /// Touches the payload's first and last byte, then looks at the clock.
    void Take(const unsigned char* payload);
    /// Nothing more will come.
    bool over() const { return flow_.state().finished.load(std::memory_order_acquire); }
    /// For readers whose samples come on another thread: returns when nothing more will come.
    void AwaitEnd() const;

private:
    const Flow& flow_;
    ReaderState& state_;
    std::uint32_t* const latencies_;
    const std::uint64_t begin_ns_ = Now();
    const std::size_t last_byte_;
    const std::uint64_t tell_every_;
    std::uint64_t received_ = 0;
    std::uint64_t told_ = 0;
};

/// Publishes what the plan says once all readers are attached. Throws when they do not attach.
void Publish(Publisher& publisher, const Flow& flow, pid_t daemon);

}  // namespace kvo::bench
