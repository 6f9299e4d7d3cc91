#pragma once

#include <atomic>

namespace kvo {

/// A mutex that keeps no account of its owner: taking and leaving it while nobody else wants it
/// is one exchange each. What it guards takes so little time that the bookkeeping of std::mutex
/// would be a sixth of it. Who finds it taken sleeps in the kernel.
/// Threads: any. Not recursive, not between processes.
class LightMutex {
public:
    void lock() {
        int found = kFree;
        // Acquire: pairs with the release in unlock(); what the last holder did is visible.
        if (!state_.compare_exchange_strong(found, kTaken, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            LockWhenFree();
        }
    }
    void unlock() {
        // Release: see lock(). Whoever waits has left its mark before it slept, so that either
        // this exchange finds the mark or the waiter's own exchange finds the mutex free.
        if (state_.exchange(kFree, std::memory_order_release) == kAwaited) {
            state_.notify_one();
        }
    }

private:
    enum : int { kFree, kTaken, kAwaited };

    // Others may wait as well, so it is left as awaited; at worst one is woken for nothing.
    __attribute__((noinline)) void LockWhenFree() {
        while (state_.exchange(kAwaited, std::memory_order_acquire) != kFree) {
            state_.wait(kAwaited, std::memory_order_relaxed);
        }
    }

    std::atomic<int> state_{kFree};
};

}  // namespace kvo
