#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <utility>

namespace kvo::brokerd {

using TimePoint = std::chrono::steady_clock::time_point;
using Clock = std::function<TimePoint()>;

/// Time for deadlines of others: stands still while the broker itself does not run, so that its
/// own pauses count against no client.
/// Threads: one.
class SupervisedTime {
public:
    /// @param tick how often Tick() is called while the broker runs.
    SupervisedTime(Clock clock, std::chrono::milliseconds tick)
        : clock_(std::move(clock)), most_(2 * tick), last_(clock_()) {}

    void Tick() {
        const TimePoint now = clock_();
        time_ += std::min<TimePoint::duration>(now - last_, most_);
        last_ = now;
    }
    TimePoint Now() const { return time_ + std::min<TimePoint::duration>(clock_() - last_, most_); }

private:
    Clock clock_;
    TimePoint::duration most_;
    TimePoint last_;  // of the clock
    TimePoint time_{};
};

}  // namespace kvo::brokerd
