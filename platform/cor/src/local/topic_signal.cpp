#include "local/topic_signal.h"

#include "kvo/os/crash_point.h"

#include <climits>

#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace gorm::cor::ps {
namespace {

constexpr auto kOrdered = std::memory_order_seq_cst;  // the four accesses of topic_ring_layout.h

}  // namespace

[[gnu::hot]] void TopicSignal::Count() {
    const std::uint32_t before = shared().word.fetch_add(ring::kCounted, kOrdered);
    KVO_CRASH_POINT("event counted");
    // A newer mark than the word was before: somebody who had seen it already has replaced the mark
    // of whoever still sleeps. [woken] Acquire: whoever slept at the mark has been woken.
    const std::uint32_t mark = shared().asleep_at.load(kOrdered);
    if (static_cast<std::int32_t>(mark - before) >= 0 ||
        mark != shared().woken_at.load(std::memory_order_acquire)) {
        Wake(mark, before);
    }
}

void TopicSignal::Nudge() {
    const std::uint32_t before = shared().word.fetch_add(ring::kNudged, kOrdered);
    KVO_CRASH_POINT("topic nudged");
    Wake(shared().asleep_at.load(kOrdered), before);
}

[[gnu::hot]] std::uint32_t TopicSignal::word() const {
    // Acquire: what was written before the event was told of is visible.
    return shared().word.load(std::memory_order_acquire);
}

[[gnu::hot]] void TopicSignal::Wake(std::uint32_t mark, std::uint32_t before) {
    ::syscall(SYS_futex, &shared().word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    KVO_CRASH_POINT("topic woken");
    if (static_cast<std::int32_t>(mark - before) <= 0) {
        // [woken] Release: after the waking. Killed before it, the next one wakes once more.
        shared().woken_at.store(mark, std::memory_order_release);
    }
}

[[gnu::hot]] bool TopicSignal::MarkAsleep(std::uint32_t seen) {
    auto& mark = shared().asleep_at;
    std::uint32_t found = mark.load(kOrdered);
    while (found != seen) {
        // While the word is at `seen`, any other mark is older, or one that nobody honest wrote.
        if (shared().word.load(kOrdered) != seen ||
            mark.compare_exchange_weak(found, seen, kOrdered, kOrdered)) {
            break;
        }
    }
    KVO_CRASH_POINT("topic marked");
    return shared().word.load(kOrdered) == seen;
}

[[gnu::hot]] void TopicSignal::Sleep(std::uint32_t seen, std::chrono::milliseconds at_most) {
    if (!MarkAsleep(seen)) {
        return;
    }
    KVO_CRASH_POINT("topic asleep");
    const timespec timeout{static_cast<time_t>(at_most.count() / 1000),
                           static_cast<long>(at_most.count() % 1000 * 1'000'000)};
    // Whatever ends it: the caller looks again.
    ::syscall(SYS_futex, &shared().word, FUTEX_WAIT, seen, &timeout, nullptr, 0);
    KVO_CRASH_POINT("topic awake");
}

}  // namespace gorm::cor::ps
