#pragma once

#include "local/system_v_memory.h"
#include "local/topic_ring_layout.h"

#include <chrono>
#include <cstdint>
#include <utility>

namespace gorm::cor::ps {

/// The signal of a local topic, as all its users share it. Threads: any.
class TopicSignal {
public:
    /// @param memory at least sizeof(ring::Signal) long.
    explicit TopicSignal(SystemVMemory memory) : memory_(std::move(memory)) {}

    /// Notifies the readers; what the caller has written before is visible to a reader that sees
    /// the new sequence. Wakes all sleepers at once, so that a stopped one delays no other.
    void Notify();
    /// Makes the readers look, and wakes all that sleep.
    void Wake();

    std::uint32_t sequence() const;

    /// Sleeps until the sequence differs from `seen`, or a wake-up or the time-out comes.
    void Sleep(std::uint32_t seen, std::chrono::milliseconds at_most);

private:
    ring::Signal& shared() const { return memory_.as<ring::Signal>(); }
    /// @param waiting_at as loaded after the sequence was changed from `before`.
    void WakeWaiters(std::uint32_t waiting_at, std::uint32_t before);
    bool SetWaiterFlag(std::uint32_t seen);

    SystemVMemory memory_;
};

}  // namespace gorm::cor::ps
