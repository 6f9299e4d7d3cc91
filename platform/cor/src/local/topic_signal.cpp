#include "local/topic_signal.h"

#include "kvo/os/crash_point.h"

#include <climits>

#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace gorm::cor::ps {

[[gnu::hot]] void TopicSignal::Notify() {
    // [topic-sequence] Release: a reader that loads this sequence sees what the caller has written
    // before. Killed before it, the server notifies in its place; killed after it, readers that
    // look see it, and sleepers are woken by the next process that adds.
    // [topic-waiter] Sequentially consistent, as the load that follows: a reader whose flag is not
    // seen here sees the new sequence before it sleeps.
    const std::uint32_t before =
        shared().sequence.fetch_add(ring::kNotification, std::memory_order_seq_cst);
    KVO_CRASH_POINT("topic notified");
    const std::uint32_t waiting_at = shared().waiting_at.load(std::memory_order_seq_cst);
    // A flag newer than the sequence was before: a reader that has already seen the new one has
    // replaced the flag of one that may still sleep.
    // [topic-woken] Acquire: the waking for this flag is over.
    if (static_cast<std::int32_t>(waiting_at - before) >= 0 ||
        waiting_at != shared().woken_at.load(std::memory_order_acquire)) {
        WakeWaiters(waiting_at, before);
    }
}

void TopicSignal::Wake() {
    // [topic-sequence] [topic-waiter] as in Notify().
    const std::uint32_t before =
        shared().sequence.fetch_add(ring::kWake, std::memory_order_seq_cst);
    KVO_CRASH_POINT("topic sequence advanced");
    WakeWaiters(shared().waiting_at.load(std::memory_order_seq_cst), before);
}

[[gnu::hot]] std::uint32_t TopicSignal::sequence() const {
    // [topic-sequence] Acquire: what was written before this value was stored is visible.
    return shared().sequence.load(std::memory_order_acquire);
}

[[gnu::hot]] void TopicSignal::WakeWaiters(std::uint32_t waiting_at, std::uint32_t before) {
    ::syscall(SYS_futex, &shared().sequence, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    KVO_CRASH_POINT("topic woken");
    if (static_cast<std::int32_t>(waiting_at - before) <= 0) {
        // [topic-woken] Release: after the waking. Killed before it, the next process that adds
        // wakes once more.
        shared().woken_at.store(waiting_at, std::memory_order_release);
    }
}

[[gnu::hot]] bool TopicSignal::SetWaiterFlag(std::uint32_t seen) {
    auto& flag = shared().waiting_at;
    // [topic-waiter] All four sequentially consistent: a process that adds to the sequence after
    // the last load here sees the flag and wakes. Killed in between, the flag costs one wake-up.
    std::uint32_t found = flag.load(std::memory_order_seq_cst);
    while (found != seen) {
        // While the sequence is at `seen`, any other flag is older, or an untrusted value.
        if (shared().sequence.load(std::memory_order_seq_cst) != seen ||
            flag.compare_exchange_weak(found, seen, std::memory_order_seq_cst,
                                       std::memory_order_seq_cst)) {
            break;
        }
    }
    KVO_CRASH_POINT("topic waiter flag set");
    return shared().sequence.load(std::memory_order_seq_cst) == seen;
}

[[gnu::hot]] void TopicSignal::Sleep(std::uint32_t seen, std::chrono::milliseconds at_most) {
    if (!SetWaiterFlag(seen)) {
        return;
    }
    KVO_CRASH_POINT("topic asleep");
    const timespec timeout{static_cast<time_t>(at_most.count() / 1000),
                           static_cast<long>(at_most.count() % 1000 * 1'000'000)};
    // Whatever ends it: the caller looks again.
    ::syscall(SYS_futex, &shared().sequence, FUTEX_WAIT, seen, &timeout, nullptr, 0);
    KVO_CRASH_POINT("topic awake");
}

}  // namespace gorm::cor::ps
