#pragma once

#include "local/shared_segment.h"
#include "local/topic_ring_layout.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace gorm::cor::ps {

/// The signal of a local topic, as all its users share it. Threads: any.
class TopicSignal {
public:
    /// @param segment at least sizeof(ring::Signal) long.
    explicit TopicSignal(SharedSegment segment) : segment_(std::move(segment)) {}

    /// Tells of a counted event; what the caller has written before is visible to who sees it.
    /// Wakes sleepers, all at once: one that has been stopped then keeps nobody else.
    void Count();
    /// Tells that there is something else to look at, and wakes whoever sleeps.
    void Nudge();

    std::uint32_t word() const;

    /// Sleeps until the word is another one than `seen`, or a wake-up or the time-out comes.
    void Sleep(std::uint32_t seen, std::chrono::milliseconds at_most);

private:
    ring::Signal& shared() const { return segment_.as<ring::Signal>(); }
    /// @param mark as found after the word was changed from `before`.
    void Wake(std::uint32_t mark, std::uint32_t before);
    bool MarkAsleep(std::uint32_t seen);

    SharedSegment segment_;
};

}  // namespace gorm::cor::ps
